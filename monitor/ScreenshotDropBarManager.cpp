#include "monitor/ScreenshotDropBarManager.h"

#include "core/DesktopServices.h"
#include "core/Log.h"
#include "core/NotificationCenter.h"
#include "core/Settings.h"
#include "events/EventsHandler.h"
#include "platform/ScreenshotFolder.h"
#include "store/GridDatabase.h"
#include "tasks/DropbarSink.h"
#include "tasks/Task.h"
#include "tasks/TaskContext.h"

#include <QDir>
#include <QFileInfo>
#include <QPointer>

#include <algorithm>

namespace {

GridDatabase& db()
{
    return GridDatabase::sharedGridDatabase();
}

bool isOwnKey(const QString& key)
{
    return key == Settings::AutoAddScreenshotsToDropBar ||
           key == Settings::ScreenshotsTargetGridId || key == Settings::ScreenshotsActionId ||
           key == Settings::ScreenshotsKeepInDropBar ||
           key == Settings::ScreenshotsConfirmBeforeAction || key == Settings::ScreenshotsFolder;
}

void log(const QString& message)
{
    Log::info(QStringLiteral("ScreenshotDropBarManager: ") + message);
}

} // namespace

ScreenshotDropBarManager::ScreenshotDropBarManager(const TaskContext& context,
                                                   EventsHandler& events, QObject* parent)
    : QObject(parent)
    , m_context(context)
    , m_events(events)
{
    connect(&m_context.settings, &Settings::changed, this,
            &ScreenshotDropBarManager::settingChanged);
    m_responseObserver = m_context.notifications.addObserver(
        Notifications::UserNotificationResponse, nullptr,
        [this](const Notification& note) { notificationPressed(note.userInfo); });
}

ScreenshotDropBarManager::~ScreenshotDropBarManager()
{
    m_context.notifications.removeObserver(m_responseObserver);
}

bool ScreenshotDropBarManager::isEnabled() const
{
    return m_context.settings.boolValue(Settings::AutoAddScreenshotsToDropBar) ||
           m_context.settings.integerValue(Settings::ScreenshotsActionId) > 0;
}

QString ScreenshotDropBarManager::screenshotsFolder() const
{
    const QString chosen = m_context.settings.stringValue(Settings::ScreenshotsFolder);
    if (!chosen.isEmpty()) {
        return QDir::cleanPath(ScreenshotFolder::expandTilde(chosen, QDir::homePath()));
    }
    return ScreenshotFolder::folder();
}

void ScreenshotDropBarManager::start()
{
    m_started = true;
    restart();
}

void ScreenshotDropBarManager::stop()
{
    m_started = false;
    m_monitor.reset();
}

QString ScreenshotDropBarManager::watchedFolder() const
{
    return m_monitor ? m_monitor->folder() : QString();
}

void ScreenshotDropBarManager::settingChanged(const QString& key)
{
    if (isOwnKey(key)) {
        restart();
    }
}

void ScreenshotDropBarManager::restart()
{
    if (!m_started) {
        return;
    }
    const bool enabled = isEnabled();
    const QString folder = enabled ? screenshotsFolder() : QString();
    // A watch of the same folder goes on, so that files settling in it are not lost.
    if (m_monitor && enabled && m_monitor->folder() == folder) {
        return;
    }
    m_monitor.reset();
    if (!enabled) {
        return;
    }
    auto monitor = std::make_unique<FolderMonitor>(folder, m_options);
    connect(monitor.get(), &FolderMonitor::filesSettled, this,
            [this](const QStringList& paths, const QList<FileIdentity>&) {
                for (const QString& path : paths) {
                    handleNewFile(path);
                }
            });
    connect(monitor.get(), &FolderMonitor::folderGone, this, [this] {
        log(QStringLiteral("the screenshots folder %1 is gone").arg(watchedFolder()));
        m_monitor.release()->deleteLater();
    });
    QString error;
    if (!monitor->start(&error)) {
        Log::warning(
            QStringLiteral(
                "ScreenshotDropBarManager: unable to open screenshots folder for monitoring: %1")
                .arg(folder));
        if (!error.isEmpty()) {
            log(error);
        }
        return;
    }
    m_monitor = std::move(monitor);
}

void ScreenshotDropBarManager::handleNewFile(const QString& path)
{
    if (!ScreenshotFolder::isScreenshot(path)) {
        return;
    }
    if (!m_context.settings.boolValue(Settings::AutoAddScreenshotsToDropBar)) {
        handleAction(path);
        return;
    }
    const GridId gridId = targetGridId();
    if (gridId == Identifiers::None) {
        handleAction(path);
        return;
    }
    QPointer<ScreenshotDropBarManager> self(this);
    m_context.dropbarSink.addFilePathsToGrid(
        {path}, gridId, [self, path](bool added, DropbarId dropbarId) {
            if (!self) {
                return;
            }
            if (added) {
                self->m_stacks.insert(path, dropbarId);
            } else {
                log(QStringLiteral("%1 could not be added to the Drop Bar").arg(path));
            }
            self->handleAction(path);
        });
}

GridId ScreenshotDropBarManager::targetGridId() const
{
    const SqlRows grids = db().getGrids();
    const auto exists = [&grids](GridId gridId) {
        return gridId > 0 && std::any_of(grids.cbegin(), grids.cend(), [gridId](const SqlRow& row) {
                   return row.value(QStringLiteral("id")).toLongLong() == gridId;
               });
    };
    const GridId chosen = m_context.settings.integerValue(Settings::ScreenshotsTargetGridId);
    if (exists(chosen)) {
        return chosen;
    }
    const GridId selected = m_context.settings.integerValue(Settings::SelectedGridId);
    if (exists(selected)) {
        if (chosen > 0) {
            log(QStringLiteral("grid %1 not found; adding the screenshot to the selected grid %2")
                    .arg(chosen)
                    .arg(selected));
        }
        return selected;
    }
    if (grids.isEmpty()) {
        log(QStringLiteral("there is no grid to add the screenshot to"));
        return Identifiers::None;
    }
    const GridId first = grids.first().value(QStringLiteral("id")).toLongLong();
    log(QStringLiteral("grid %1 not found; adding the screenshot to the first grid %2")
            .arg(chosen)
            .arg(first));
    return first;
}

void ScreenshotDropBarManager::handleAction(const QString& path)
{
    const ActionId actionId = m_context.settings.integerValue(Settings::ScreenshotsActionId);
    if (actionId <= 0) {
        m_stacks.remove(path);
        return;
    }
    const GridActionPtr action = db().getGridActionWithId(actionId);
    if (!action) {
        log(QStringLiteral("the action %1 chosen for screenshots no longer exists").arg(actionId));
        m_stacks.remove(path);
        return;
    }
    if (!m_context.settings.boolValue(Settings::ScreenshotsConfirmBeforeAction)) {
        runAction(action, path);
        return;
    }
    UserNotification notification;
    notification.title = QStringLiteral("Run %1 on Screenshot").arg(action->name);
    notification.body = QFileInfo(path).fileName();
    notification.imagePath = path;
    notification.category = RunActionCategory;
    notification.actions = {{RunActionIdentifier, RunActionButtonTitle}};
    notification.userInfo = {{RunActionIdKey, actionId}, {RunActionFilePathKey, path}};
    m_context.desktop.sendNotification(notification);
}

void ScreenshotDropBarManager::notificationPressed(const QVariantMap& userInfo)
{
    if (userInfo.value(Notifications::NotificationActionIdentifierKey).toString() !=
            RunActionIdentifier ||
        !userInfo.contains(RunActionIdKey) || !userInfo.contains(RunActionFilePathKey)) {
        return;
    }
    const QString path = userInfo.value(RunActionFilePathKey).toString();
    if (!QFileInfo::exists(path)) {
        log(QStringLiteral("%1 is gone; the action does not run").arg(path));
        m_stacks.remove(path);
        return;
    }
    const ActionId actionId = userInfo.value(RunActionIdKey).toLongLong();
    const GridActionPtr action = db().getGridActionWithId(actionId);
    if (!action) {
        log(QStringLiteral("the action %1 chosen for screenshots no longer exists").arg(actionId));
        return;
    }
    runAction(action, path);
}

void ScreenshotDropBarManager::runAction(const GridActionPtr& action, const QString& path)
{
    QPointer<ScreenshotDropBarManager> self(this);
    m_events.runGridAction(action, QStringList{path}, true, [self, path] {
        if (!self) {
            return;
        }
        const DropbarId dropbarId = self->m_stacks.take(path);
        if (dropbarId != Identifiers::None && !self->keepInDropBar()) {
            self->m_context.dropbarSink.removeDropbar(dropbarId);
        }
    });
}

bool ScreenshotDropBarManager::keepInDropBar() const
{
    // Removing a stack the user did not ask to lose would surprise more than keeping one.
    const QJsonValue value = m_context.settings.value(Settings::ScreenshotsKeepInDropBar);
    return value.isUndefined() || value.isNull() || Settings::lenientBool(value);
}
