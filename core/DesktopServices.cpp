#include "core/DesktopServices.h"

#include "core/Log.h"

void HeadlessDesktopServices::pasteUrl(const QString& url)
{
    m_clipboard = url;
    Log::info(QStringLiteral("Clipboard: %1").arg(url));
}

void HeadlessDesktopServices::pasteString(const QString& text)
{
    m_clipboard = text;
    Log::info(QStringLiteral("Clipboard: %1").arg(text));
}

void HeadlessDesktopServices::pasteFiles(const QStringList& paths)
{
    m_clipboard = paths.join(u'\n');
    Log::info(QStringLiteral("Clipboard: %1").arg(m_clipboard));
}

bool HeadlessDesktopServices::insertTextIntoFrontmostApp(const QString&, QString* error)
{
    if (error) {
        *error = QStringLiteral("there is no display to type into");
    }
    return false;
}

void HeadlessDesktopServices::playSound(const QString& name)
{
    Log::debug(QStringLiteral("Sound \"%1\" (no display)").arg(name));
}

void HeadlessDesktopServices::sendNotification(const UserNotification& notification)
{
    // Without a notification service a button can only be pressed from the command line,
    // so the log says what waits.
    Log::info(QStringLiteral("Notification: %1 -- %2").arg(notification.title, notification.body));
    for (const NotificationAction& action : notification.actions) {
        Log::info(QStringLiteral("Notification button \"%1\" waits (%2)")
                      .arg(action.title, notification.category));
    }
}
