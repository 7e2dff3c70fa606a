#pragma once

#include <QString>
#include <QStringList>

#include <memory>

// A user notification as the desktop shows it.
struct UserNotification {
    QString title;
    QString body;
    QString imagePath;
    QString clickUrl;    // opened when the notification is clicked; empty for none
    QString clickScript; // run when the notification is clicked; empty for none
};

// What the engine asks of the desktop besides windows: the clipboard, sounds and
// notifications. Headless runs keep the clipboard in memory and log the rest.
class DesktopServices {
public:
    virtual ~DesktopServices() = default;

    virtual void pasteUrl(const QString& url) = 0;
    virtual void pasteString(const QString& text) = 0;
    virtual void playSound(const QString& name) = 0;
    virtual void sendNotification(const UserNotification& notification) = 0;
};

class HeadlessDesktopServices : public DesktopServices {
public:
    void pasteUrl(const QString& url) override;
    void pasteString(const QString& text) override;
    void playSound(const QString& name) override;
    void sendNotification(const UserNotification& notification) override;

    QString clipboard() const { return m_clipboard; }

private:
    QString m_clipboard;
};
