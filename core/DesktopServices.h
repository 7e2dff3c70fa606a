#pragma once

#include <QList>
#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <memory>

// A button of a user notification.
struct NotificationAction {
    QString identifier; // reported back when pressed
    QString title;
};

// A user notification as the desktop shows it.
struct UserNotification {
    QString title;
    QString body;
    QString imagePath;
    QString clickUrl;             // opened when the notification is clicked; empty for none
    QString clickScript;          // run when the notification is clicked; empty for none
    qint64 dropbarDatabaseId = 0; // a Drop Bar revealed when it is clicked; 0 for none
    // A notification that offers to run something: its category, its buttons and what the
    // engine needs to know when one is pressed. A press is posted on the engine's
    // notification centre as Notifications::UserNotificationResponse with `userInfo` and the
    // button's identifier under "actionIdentifier".
    QString category;
    QList<NotificationAction> actions;
    QVariantMap userInfo;
};

// What the engine asks of the desktop besides windows: the clipboard, sounds and
// notifications. Headless runs keep the clipboard in memory and log the rest.
class DesktopServices {
public:
    virtual ~DesktopServices() = default;

    virtual void pasteUrl(const QString& url) = 0;
    virtual void pasteString(const QString& text) = 0;
    // Puts files on the clipboard, as a file manager's "Copy" does.
    virtual void pasteFiles(const QStringList& paths) = 0;
    // Types the text into the window that has the focus; false with `error` when the desktop
    // does not allow it.
    virtual bool insertTextIntoFrontmostApp(const QString& text, QString* error) = 0;
    virtual void playSound(const QString& name) = 0;
    virtual void sendNotification(const UserNotification& notification) = 0;
};

class HeadlessDesktopServices : public DesktopServices {
public:
    void pasteUrl(const QString& url) override;
    void pasteString(const QString& text) override;
    void pasteFiles(const QStringList& paths) override;
    // There is no window to type into.
    bool insertTextIntoFrontmostApp(const QString& text, QString* error) override;
    void playSound(const QString& name) override;
    void sendNotification(const UserNotification& notification) override;

    QString clipboard() const { return m_clipboard; }

private:
    QString m_clipboard;
};
