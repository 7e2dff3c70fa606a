#pragma once

#include "actions/ActionFile.h"

#include <QObject>
#include <QString>
#include <QStringList>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>

struct Alert;
class ActionFileParser;
class AlertHelper;
class NotificationCenter;
class WindowPresenter;

// How one install ended.
struct InstallResult {
    bool ok = false;
    bool cancelled = false;
    // The success message ("<name> Sucessfully Installed") or why it failed, as a sentence.
    QString message;
    ActionFilePtr action; // the installed record, when ok
};
using InstallCompletion = std::function<void(const InstallResult&)>;

// Puts actions into the user actions folder: bundles (folders or zipped ".skbundle" files),
// single-file ".skelvo" actions, and ".zip" archives holding one bundle. One install runs at
// a time; a list is queued and installed one after another, ending with one alert. Zipped
// bundles are unpacked on a worker thread into a fresh temporary folder and moved into place
// only when complete, so a failed or cancelled install leaves the installed copy untouched.
class ActionFilesController : public QObject {
    Q_OBJECT
public:
    ActionFilesController(ActionFileParser& parser, AlertHelper& alerts, WindowPresenter& windows,
                          NotificationCenter& notifications, QObject* parent = nullptr);
    ~ActionFilesController() override;

    // "Add to Grid" on the single-install alert hands the record to this (the grid places it).
    void setAddToGrid(std::function<void(const ActionFilePtr&)> addToGrid)
    {
        m_addToGrid = std::move(addToGrid);
    }
    // The version installs are checked against (the application's short version by default).
    void setApplicationVersion(const QString& version) { m_applicationVersion = version; }
    // Whether a rewritten header drops the template's comments (the develop sheet's choice).
    void setDisableComments(bool disable) { m_disableComments = disable; }

    // Keeps the paths that are action files (lower-cased extension "skbundle", or "skelvo" for
    // regular files) and installs them one after another; ignored while an install runs.
    void addActionBundlesOrScripts(const QStringList& paths);

    // Installs one path. With `headless` no window or alert is shown (their texts reach
    // `completion` and the log). `rewriteMetaData` replaces the header of the installed
    // script; `newName` names the installed copy. Refused (completion at once, not ok) while
    // another install runs. `completion` is called exactly once, on the main thread.
    void addActionBundleOrScriptWithPath(const QString& path, bool singleInstall,
                                         const QString& rewriteMetaData = {},
                                         const QString& newName = {}, bool headless = false,
                                         InstallCompletion completion = {});

    // Stops an unpacking install; the installed copy stays as it was.
    void cancel();

    bool isAlreadyInstallingAction() const { return m_isAlreadyInstallingAction; }
    QString lastInstalledMessage() const { return m_lastInstalledMessage; }
    ActionFilePtr lastInstalledActionFile() const { return m_lastInstalledActionFile; }

    // Removes the user's copies of these actions and reloads the list.
    void deleteActionFiles(const ActionFileList& records);

private:
    void processNextPath();
    void unpackZippedBundle();
    void unzipFinished(bool ok, bool cancelled, const QString& error);
    void finishInstallingBundleOrScript(const QString& source);
    void copyIntoPlace(int attempt);
    void completeInstall();
    // Ends the current install: resets the state, removes what was unpacked, shows `alert`
    // (unless headless; logged then) and calls the completion.
    void endInstall(InstallResult result, const Alert* alert = nullptr,
                    std::function<void(int)> answered = {});
    void failInstall(const QString& title, const QString& text);
    void showSingleInstallAlert();
    bool wasCancelled() const { return m_installCancelled && *m_installCancelled; }

    ActionFileParser& m_parser;
    AlertHelper& m_alerts;
    WindowPresenter& m_windows;
    NotificationCenter& m_notifications;
    std::function<void(const ActionFilePtr&)> m_addToGrid;
    QString m_applicationVersion;
    bool m_isAlreadyInstallingAction = false;
    QString m_lastInstalledMessage;
    ActionFilePtr m_lastInstalledActionFile;

    // The install that runs.
    std::shared_ptr<std::atomic_bool> m_installCancelled; // shared with the unpacking thread
    bool m_singleInstall = false;
    bool m_headlessInstall = false;
    bool m_isZippedBundle = false;
    bool m_disableComments = false;
    QString m_sourcePath;       // what was asked to be installed
    QString m_installingSource; // the bundle or file copied (unpacked for archives)
    QString m_rewrittenMetaData;
    QString m_rewrittenName;
    QString m_actionCopyToPath;
    QString m_temporaryDirectory; // where an archive was unpacked
    InstallCompletion m_completion;
    std::thread m_unzipThread;

    // The queued list.
    bool m_installingList = false;
    QStringList m_paths;
    qsizetype m_currentPathIndex = 0;
    int m_numActionFilesAdded = 0;
};
