#pragma once

#include <QObject>

// Brings the engine up in its fixed order and holds what lives for the whole run.
// It opens no window, so the same start-up serves the desktop and headless runs.
class AppDelegate : public QObject {
    Q_OBJECT
public:
    explicit AppDelegate(bool headless, QObject* parent = nullptr);

    void applicationDidFinishLaunching();
    void applicationWillTerminate();

    bool isHeadless() const { return m_headless; }
    bool didFinishStartup() const { return m_didFinishStartup; }
    // True when the grid database did not exist at start.
    bool isFirstLaunch() const { return m_isFirstLaunch; }

    static void registerDefaultSettings();

private:
    bool m_headless;
    bool m_didFinishStartup = false;
    bool m_isFirstLaunch = false;
};
