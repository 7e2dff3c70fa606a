#pragma once

#include "app/Engine.h"

#include <QObject>
#include <QStringList>

#include <memory>

class CmdLineTaskHandler;

// Brings the engine up in its fixed order and holds what lives for the whole run: the
// engine and the command-line handler. It opens no window, so the same start-up serves the
// desktop and headless runs; the desktop hands in its presenters and secret store.
class AppDelegate : public QObject {
    Q_OBJECT
public:
    AppDelegate(bool headless, EngineParts parts, QObject* parent = nullptr);
    ~AppDelegate() override;

    // Takes the one-instance-per-user lock and opens the command-line socket, so that a
    // second instance can hand over at once. False when another instance runs.
    bool claimInstance(QString* error = nullptr);
    void applicationDidFinishLaunching();
    void applicationWillTerminate();

    bool isHeadless() const { return m_headless; }
    bool didFinishStartup() const { return m_didFinishStartup; }
    // True when the grid database did not exist at start.
    bool isFirstLaunch() const { return m_isFirstLaunch; }
    CmdLineTaskHandler* cmdLineTaskHandler() const { return m_cmdLineTaskHandler.get(); }
    Engine& engine() { return m_engine; }

    // Action files and URLs given on the command line or handed over by a second instance;
    // kept until start-up has finished, then installed or answered.
    QString openArguments(const QStringList& arguments, const QString& cwd);
    QStringList pendingArguments() const { return m_pendingArguments; }
    // Installs the action files among `paths`, all in one go.
    void openActionFileURLs(const QStringList& paths);
    // skelvo://NAME downloads the action NAME; skelvo://openviashare opens the grid with what
    // another program shared; anything else is logged.
    void handleURLEvent(const QString& url);
    // Where the file manager's "Share with Skelvo" entry leaves "sharedfiles.plist" and
    // "sharedtext.plist".
    static QString shareDirectory();

    void registerDefaultSettings();

private:
    void handleArguments(const QStringList& arguments);
    void openViaShare();
    void addInstalledActionToGrid(const ActionFilePtr& record);

    bool m_headless;
    bool m_didFinishStartup = false;
    bool m_isFirstLaunch = false;
    Engine m_engine;
    std::unique_ptr<CmdLineTaskHandler> m_cmdLineTaskHandler;
    QStringList m_pendingArguments;
};
