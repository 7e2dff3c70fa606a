#pragma once

#include <QString>
#include <QStringList>

// Hands URLs, files and applications to the desktop. The engine asks through this so that
// tests can record the requests instead of opening windows.
class Launcher {
public:
    virtual ~Launcher() = default;

    // Opens a URL (web, custom scheme, file:// or trash:///) with the desktop's handler.
    virtual bool openUrl(const QString& url, QString* error) = 0;
    // Launches an application (a .desktop file or an executable), with the files given.
    virtual bool launchApplication(const QString& application, const QStringList& filePaths,
                                   QString* error) = 0;
};

// Launches through GIO: default handlers and Desktop Entry files as the freedesktop
// standards describe them; plain executables are started detached.
class GioLauncher : public Launcher {
public:
    bool openUrl(const QString& url, QString* error) override;
    bool launchApplication(const QString& application, const QStringList& filePaths,
                           QString* error) override;
};
