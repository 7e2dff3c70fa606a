#pragma once

#include <QObject>
#include <QStringList>

#include <memory>

class CmdLineTaskHandler;

// Brings the engine up in its fixed order and holds what lives for the whole run.
// It opens no window, so the same start-up serves the desktop and headless runs.
class AppDelegate : public QObject {
    Q_OBJECT
public:
    explicit AppDelegate(bool headless, QObject* parent = nullptr);
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

    // Action files and URLs given on the command line or handed over by a second instance;
    // kept until start-up has finished.
    QString openArguments(const QStringList& arguments, const QString& cwd);
    QStringList pendingArguments() const { return m_pendingArguments; }

    static void registerDefaultSettings();

private:
    bool m_headless;
    bool m_didFinishStartup = false;
    bool m_isFirstLaunch = false;
    std::unique_ptr<CmdLineTaskHandler> m_cmdLineTaskHandler;
    QStringList m_pendingArguments;
};
