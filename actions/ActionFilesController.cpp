#include "actions/ActionFilesController.h"

#include "actions/ActionFileParser.h"
#include "actions/DevelopActionController.h"
#include "core/AlertHelper.h"
#include "core/FileOperations.h"
#include "core/Log.h"
#include "core/NotificationCenter.h"
#include "core/SupportPaths.h"
#include "core/Version.h"
#include "core/WindowPresenter.h"
#include "platform/ZipExtractor.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTimer>
#include <QUuid>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

fs::path nativePath(const QString& path)
{
    return fs::path(QFile::encodeName(path).toStdString());
}

QString describe(const std::error_code& code)
{
    return QString::fromLocal8Bit(code.message());
}

bool existsOrIsLink(const QString& path)
{
    const QFileInfo info(path);
    return info.exists() || info.isSymLink();
}

// Errors that go away by themselves (a file held busy for a moment); anything else would fail
// the same way on every attempt.
bool isTransient(const std::error_code& code)
{
    return code == std::errc::device_or_resource_busy ||
           code == std::errc::resource_unavailable_try_again || code == std::errc::interrupted;
}

// A name that stays inside the folder it is joined to.
bool isPlainFileName(const QString& name)
{
    return !name.isEmpty() && !name.startsWith(u'.') && !name.contains(u'/') &&
           !name.contains(QChar(0));
}

QString hiddenSibling(const QString& path, const QString& purpose)
{
    const QFileInfo info(path);
    return info.dir().filePath(
        QStringLiteral(".%1.%2-%3")
            .arg(info.fileName(), purpose, QUuid::createUuid().toString(QUuid::WithoutBraces)));
}

InstallResult failedResult(const QString& message)
{
    InstallResult result;
    result.message = message;
    return result;
}

InstallResult cancelledResult(const QString& source)
{
    InstallResult result = failedResult(QStringLiteral("The install of %1 was cancelled.")
                                            .arg(QFileInfo(source).completeBaseName()));
    result.cancelled = true;
    return result;
}

const QString UpdateHint =
    QStringLiteral("You can update to the latest version from the Updates tab in the Settings.");

} // namespace

ActionFilesController::ActionFilesController(ActionFileParser& parser, AlertHelper& alerts,
                                             WindowPresenter& windows,
                                             NotificationCenter& notifications, QObject* parent)
    : QObject(parent)
    , m_parser(parser)
    , m_alerts(alerts)
    , m_windows(windows)
    , m_notifications(notifications)
    , m_applicationVersion(Version::shortVersionString())
{}

ActionFilesController::~ActionFilesController()
{
    if (m_installCancelled) {
        *m_installCancelled = true;
    }
    if (m_unzipThread.joinable()) {
        m_unzipThread.join();
    }
    if (!m_temporaryDirectory.isEmpty()) {
        FileOperations::removeRecursively(m_temporaryDirectory);
    }
    if (m_isAlreadyInstallingAction) {
        m_parser.setSkipDuplicatesCheck(false);
    }
}

void ActionFilesController::addActionBundlesOrScripts(const QStringList& paths)
{
    if (m_isAlreadyInstallingAction || m_installingList) {
        Log::warning(QStringLiteral("An action install is already running; %1 path(s) ignored")
                         .arg(paths.size()));
        return;
    }
    QStringList queued;
    for (const QString& path : paths) {
        const QFileInfo info(path);
        const QString suffix = info.suffix().toLower();
        if (suffix == u"skbundle" || (suffix == u"skelvo" && info.isFile())) {
            queued << path;
        }
    }
    m_paths = queued;
    m_currentPathIndex = 0;
    m_numActionFilesAdded = 0;
    m_installingList = true;
    processNextPath();
}

void ActionFilesController::processNextPath()
{
    if (m_currentPathIndex < m_paths.size()) {
        const QString path = m_paths.at(m_currentPathIndex++);
        // A failed path does not stop the rest of the list.
        addActionBundleOrScriptWithPath(path, false, {}, {}, false, [this](const InstallResult&) {
            QMetaObject::invokeMethod(
                this, [this] { processNextPath(); }, Qt::QueuedConnection);
        });
        return;
    }
    m_installingList = false;
    m_paths.clear();
    if (m_numActionFilesAdded == 1) {
        showSingleInstallAlert();
    } else if (m_numActionFilesAdded >= 2) {
        Alert alert{Alert::Style::Informational,
                    QStringLiteral("New Actions Installed"),
                    QStringLiteral("%1 new actions were installed successfully.\n\nYou can add "
                                   "these actions to the grid from the add action menu.")
                        .arg(m_numActionFilesAdded),
                    {},
                    this};
        m_alerts.runAlert(alert);
    }
}

void ActionFilesController::addActionBundleOrScriptWithPath(const QString& path, bool singleInstall,
                                                            const QString& rewriteMetaData,
                                                            const QString& newName, bool headless,
                                                            InstallCompletion completion)
{
    if (m_isAlreadyInstallingAction) {
        const QString message = QStringLiteral("Another action is already being installed.");
        Log::warning(QStringLiteral("%1 not installed: %2").arg(path, message));
        if (completion) {
            completion(failedResult(message));
        }
        return;
    }
    m_isAlreadyInstallingAction = true;
    m_parser.setSkipDuplicatesCheck(true);
    m_installCancelled = std::make_shared<std::atomic_bool>(false);
    m_singleInstall = singleInstall;
    m_headlessInstall = headless;
    m_rewrittenMetaData = rewriteMetaData;
    m_rewrittenName = newName;
    m_completion = std::move(completion);
    m_sourcePath = path;
    m_installingSource.clear();
    m_temporaryDirectory.clear();

    const QFileInfo info(path);
    const QString suffix = info.suffix().toLower();
    const QString name = newName.isEmpty() ? info.completeBaseName() : newName;
    m_actionCopyToPath =
        QDir(m_parser.userActionsDirectory()).filePath(name + u'.' + info.suffix().toLower());
    m_isZippedBundle = info.isFile() && (suffix == u"skbundle" || suffix == u"zip");
    if (m_isZippedBundle) {
        unpackZippedBundle();
    } else {
        finishInstallingBundleOrScript(path);
    }
}

void ActionFilesController::unpackZippedBundle()
{
    const QString name = QFileInfo(m_sourcePath).completeBaseName();
    if (!m_headlessInstall) {
        m_windows.showProgressWindow(QStringLiteral("Installing %1...").arg(name),
                                     [this] { cancel(); });
    }
    m_temporaryDirectory = SupportPaths::uniqueTemporaryDirectory();
    if (!QFileInfo(m_temporaryDirectory).isDir()) {
        failInstall(QStringLiteral("%1 could not be installed").arg(name),
                    QStringLiteral("No temporary folder could be created to unpack it in."));
        return;
    }
    m_unzipThread = std::thread([this, archive = m_sourcePath, destination = m_temporaryDirectory,
                                 cancelled = m_installCancelled] {
        const ZipExtractor::Result result =
            ZipExtractor::extract(archive, destination, cancelled.get());
        QMetaObject::invokeMethod(
            this, [this, result] { unzipFinished(result.ok, result.cancelled, result.error); },
            Qt::QueuedConnection);
    });
}

void ActionFilesController::unzipFinished(bool ok, bool cancelled, const QString& error)
{
    if (m_unzipThread.joinable()) {
        m_unzipThread.join();
    }
    const QString name = QFileInfo(m_sourcePath).completeBaseName();
    if (cancelled || wasCancelled()) {
        endInstall(cancelledResult(m_sourcePath));
        return;
    }
    if (!ok) {
        failInstall(QStringLiteral("%1 could not be installed").arg(name), error);
        return;
    }
    std::error_code code;
    QStringList entries;
    for (fs::directory_iterator it(nativePath(m_temporaryDirectory), code), end; !code && it != end;
         it.increment(code)) {
        const QString entry = QFile::decodeName(it->path().filename().c_str());
        // Archives made on some desktops carry resource-fork folders and hidden files beside
        // the bundle.
        if (!entry.startsWith(u'.') && entry != u"__MACOSX") {
            entries << entry;
        }
    }
    if (code) {
        Log::error(QStringLiteral("zipArchiveDidUnzipArchiveAtPath: Error getting contents of "
                                  "unzip destination directory %1: %2")
                       .arg(m_temporaryDirectory, describe(code)));
        failInstall(
            QStringLiteral("%1 could not be installed").arg(name),
            QStringLiteral("The unpacked archive could not be read: %1.").arg(describe(code)));
        return;
    }
    if (entries.size() != 1) {
        failInstall(QStringLiteral("%1 could not be installed").arg(name),
                    QStringLiteral("The archive must hold exactly one action bundle or "
                                   "single-file action; it holds %1 items.")
                        .arg(entries.size()));
        return;
    }
    finishInstallingBundleOrScript(QDir(m_temporaryDirectory).filePath(entries.first()));
}

void ActionFilesController::finishInstallingBundleOrScript(const QString& source)
{
    m_installingSource = source;
    const QString displayName = QFileInfo(m_sourcePath).completeBaseName();
    const std::optional<ActionFile> parsed = m_parser.processPath(source);
    if (!parsed) {
        failInstall(QStringLiteral("%1 could not be installed").arg(displayName),
                    QStringLiteral("%1 is not an action bundle or single-file action.")
                        .arg(QFileInfo(source).fileName()));
        return;
    }
    QString problems;
    if (!parsed->validateMetaData(nullptr, &problems)) {
        failInstall(QStringLiteral("Invalid Action Meta Data"),
                    QStringLiteral("The action script you are trying to add contains invalid or "
                                   "missing meta data. The following problems were found:\n\n%1")
                        .arg(problems));
        return;
    }
    if (!parsed->minSkelvoVersion.isEmpty() &&
        ActionFile::compareVersion(parsed->minSkelvoVersion, m_applicationVersion) == -1) {
        const Alert alert{
            Alert::Style::Warning,
            QStringLiteral("%1 action requires a newer version of Skelvo").arg(parsed->actionName),
            QStringLiteral("This action requires a minimum of Skelvo version %1. You "
                           "currently have version %2.\n\n%3")
                .arg(parsed->minSkelvoVersion, m_applicationVersion, UpdateHint),
            {QStringLiteral("Updates Tab"), QStringLiteral("Cancel")},
            this};
        endInstall(failedResult(alert.title + u'\n' + alert.message), &alert, [this](int button) {
            if (button == 0) {
                m_windows.openSettingsPage(QStringLiteral("Updates"));
            }
        });
        return;
    }
    // An archive's action is installed under its own name, which must not lead elsewhere.
    const QString installName = !m_rewrittenName.isEmpty() ? m_rewrittenName
                                : m_isZippedBundle         ? parsed->actionName
                                                           : QFileInfo(source).completeBaseName();
    if (!isPlainFileName(installName)) {
        failInstall(QStringLiteral("%1 could not be installed").arg(displayName),
                    QStringLiteral("\"%1\" cannot be used as the name of the installed action.")
                        .arg(installName));
        return;
    }
    if (m_isZippedBundle) {
        m_actionCopyToPath =
            QDir(m_parser.userActionsDirectory())
                .filePath(installName + u'.' + QFileInfo(source).suffix().toLower());
    }
    copyIntoPlace(0);
}

void ActionFilesController::copyIntoPlace(int attempt)
{
    if (wasCancelled()) {
        endInstall(cancelledResult(m_sourcePath));
        return;
    }
    const QString& destination = m_actionCopyToPath;
    const QFileInfo sourceInfo(m_installingSource);
    const QFileInfo destinationInfo(destination);
    // A linked action is installed as the bundle or file it points to.
    const QString copySource =
        sourceInfo.isSymLink() ? sourceInfo.canonicalFilePath() : m_installingSource;
    // Opening an action that is already installed installs it onto itself.
    if (destinationInfo.exists() &&
        sourceInfo.canonicalFilePath() == destinationInfo.canonicalFilePath()) {
        completeInstall();
        return;
    }
    QDir().mkpath(destinationInfo.absolutePath());

    // The new copy is made beside the destination under a hidden name (the parser skips it)
    // and swapped in only once it is complete.
    const QString staging = hiddenSibling(destination, QStringLiteral("installing"));
    std::error_code code;
    fs::copy(nativePath(copySource), nativePath(staging),
             fs::copy_options::recursive | fs::copy_options::copy_symlinks, code);
    QString failure;
    if (!code) {
        QString replaced;
        if (existsOrIsLink(destination)) {
            replaced = hiddenSibling(destination, QStringLiteral("replaced"));
            fs::rename(nativePath(destination), nativePath(replaced), code);
            if (code) {
                Log::error(QStringLiteral("Error deleting destination script at path %1: %2")
                               .arg(destination, describe(code)));
            }
        }
        if (!code) {
            fs::rename(nativePath(staging), nativePath(destination), code);
            if (code && !replaced.isEmpty()) {
                std::error_code restore;
                fs::rename(nativePath(replaced), nativePath(destination), restore);
            }
        }
        if (!code && !replaced.isEmpty()) {
            QString reason;
            if (!FileOperations::removeRecursively(replaced, &reason)) {
                Log::error(QStringLiteral("Error deleting destination script at path %1: %2")
                               .arg(destination, reason));
            }
        }
    }
    if (!code) {
        completeInstall();
        return;
    }
    FileOperations::removeRecursively(staging);
    if (isTransient(code)) {
        const int delay = std::min(1000, 50 << std::min(attempt, 5));
        QTimer::singleShot(delay, this, [this, attempt] { copyIntoPlace(attempt + 1); });
        return;
    }
    failInstall(
        QStringLiteral("%1 could not be installed").arg(QFileInfo(m_sourcePath).completeBaseName()),
        QStringLiteral("It could not be copied to %1: %2.").arg(destination, describe(code)));
}

void ActionFilesController::completeInstall()
{
    const QString destination = m_actionCopyToPath;
    m_parser.invalidateActionsCache();
    ActionFilePtr record = m_parser.getActionWithTaskPath(destination);
    if (!record) {
        if (std::optional<ActionFile> parsed = m_parser.processPath(destination)) {
            record = std::make_shared<ActionFile>(std::move(*parsed));
        }
    }
    const QString script = record ? record->scriptPath() : destination;
    if (::chmod(QFile::encodeName(script).constData(), 0777) != 0) {
        Log::error(QStringLiteral("Error setting file permissions on script %1: %2")
                       .arg(script, QString::fromLocal8Bit(strerror(errno))));
    }
    if (!m_rewrittenMetaData.isEmpty()) {
        DevelopActionController::rewriteMetaData(m_rewrittenMetaData, script, m_disableComments);
    }
    m_parser.setSkipDuplicatesCheck(false);
    m_notifications.post(Notifications::ReloadUserActionsTable, this);
    m_parser.invalidateActionsCache();
    if (ActionFilePtr reread = m_parser.getActionWithTaskPath(destination)) {
        record = reread;
    }

    const QString name = record ? record->actionName : QFileInfo(destination).completeBaseName();
    m_lastInstalledMessage = QStringLiteral("%1 Sucessfully Installed").arg(name);
    m_lastInstalledActionFile = record;
    Log::info(m_lastInstalledMessage);
    m_notifications.post(Notifications::ActionSingleInstallCompleted, this,
                         {{QStringLiteral("name"), name}, {QStringLiteral("path"), destination}});
    ++m_numActionFilesAdded;
    const bool showAlert = m_singleInstall && !m_headlessInstall;
    endInstall({true, false, m_lastInstalledMessage, record});
    if (showAlert) {
        showSingleInstallAlert();
    }
}

void ActionFilesController::showSingleInstallAlert()
{
    const Alert alert{Alert::Style::Informational,
                      m_lastInstalledMessage,
                      QStringLiteral("You can now add this action to your Skelvo grid."),
                      {QStringLiteral("Add to Grid"), QStringLiteral("OK")},
                      this};
    m_alerts.runAlert(alert, [this, record = m_lastInstalledActionFile](int button) {
        if (button == 0 && m_addToGrid && record) {
            m_addToGrid(record);
        }
    });
}

void ActionFilesController::failInstall(const QString& title, const QString& text)
{
    const Alert alert{Alert::Style::Critical, title, text, {}, this};
    endInstall(failedResult(title + u'\n' + text), &alert);
}

void ActionFilesController::endInstall(InstallResult result, const Alert* alert,
                                       std::function<void(int)> answered)
{
    m_isAlreadyInstallingAction = false;
    m_parser.setSkipDuplicatesCheck(false);
    if (m_isZippedBundle) {
        if (!m_headlessInstall) {
            m_windows.closeProgressWindow();
        }
        QString reason;
        if (!m_temporaryDirectory.isEmpty() &&
            !FileOperations::removeRecursively(m_temporaryDirectory, &reason)) {
            Log::error(
                result.ok
                    ? QStringLiteral("Error removing temporary unzipped bundle at path %1: %2")
                          .arg(m_installingSource, reason)
                    : QStringLiteral("zipArchiveDidUnzipArchiveAtPath: Error removing temporary "
                                     "unzip destination directory %1: %2")
                          .arg(m_temporaryDirectory, reason));
        }
        m_temporaryDirectory.clear();
    }
    if (alert) {
        if (m_headlessInstall) {
            Log::warning(QStringLiteral("%1 -- %2").arg(alert->title, alert->message));
        } else {
            m_alerts.runAlert(*alert, std::move(answered));
        }
    }
    // The completion may start the next install, so it comes last.
    InstallCompletion completion = std::move(m_completion);
    m_completion = {};
    if (completion) {
        completion(result);
    }
}

void ActionFilesController::cancel()
{
    if (m_isAlreadyInstallingAction && m_installCancelled) {
        *m_installCancelled = true;
    }
}

void ActionFilesController::deleteActionFiles(const ActionFileList& records)
{
    m_parser.deleteActionFiles(records);
    m_parser.invalidateActionsCache();
    m_notifications.post(Notifications::ReloadUserActionsTable, this);
}
