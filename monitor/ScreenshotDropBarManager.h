#pragma once

#include "core/Identifiers.h"
#include "monitor/FolderMonitor.h"
#include "store/GridAction.h"

#include <QHash>
#include <QObject>
#include <QString>

#include <memory>

class EventsHandler;
struct TaskContext;

// Collects new screenshots: watches the screenshot folder (the user's "ScreenshotsFolder",
// else the desktop's) while adding to the Drop Bar or an action is switched on, and for each
// screenshot that has been written completely adds it as a stack to the chosen grid's Drop
// Bar and runs the chosen grid action on it, at once or when the user presses the button of
// a notification. Main thread only.
class ScreenshotDropBarManager : public QObject {
    Q_OBJECT
public:
    static inline const QString RunActionCategory = QStringLiteral("ScreenshotRunActionCategory");
    static inline const QString RunActionIdentifier = QStringLiteral("RunScreenshotAction");
    static inline const QString RunActionButtonTitle = QStringLiteral("Run Action");
    static inline const QString RunActionIdKey = QStringLiteral("runActionId");
    static inline const QString RunActionFilePathKey = QStringLiteral("runActionFilePath");

    ScreenshotDropBarManager(const TaskContext& context, EventsHandler& events,
                             QObject* parent = nullptr);
    ~ScreenshotDropBarManager() override;

    // The watch's intervals; the default settles a file after 2.0 s without change.
    void setWatchOptions(FolderMonitor::Options options) { m_options = std::move(options); }

    // Adding to the Drop Bar is on or an action is chosen.
    bool isEnabled() const;
    // The folder to watch: the "ScreenshotsFolder" setting, else the desktop's.
    QString screenshotsFolder() const;
    // Start-up: watches the folder when enabled; from then on a change of the settings
    // starts, moves or stops the watch.
    void start();
    void stop();
    // The folder being watched; empty when none.
    QString watchedFolder() const;

public Q_SLOTS:
    // A file that has been written completely; ignored unless it is a screenshot.
    void handleNewFile(const QString& path);

private:
    void settingChanged(const QString& key);
    void restart();
    void notificationPressed(const QVariantMap& userInfo);
    GridId targetGridId() const;
    void handleAction(const QString& path);
    void runAction(const GridActionPtr& action, const QString& path);
    bool keepInDropBar() const;

    const TaskContext& m_context;
    EventsHandler& m_events;
    FolderMonitor::Options m_options;
    std::unique_ptr<FolderMonitor> m_monitor;
    bool m_started = false;
    int m_responseObserver = 0;
    QHash<QString, DropbarId> m_stacks; // screenshots added to a Drop Bar, by path
};
