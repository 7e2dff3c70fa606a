#pragma once

#include "core/CmdLineProtocol.h"

#include <QObject>
#include <QPointer>
#include <QString>
#include <QVariantMap>

#include <functional>
#include <map>

// Names of the application-wide notifications.
namespace Notifications {
inline const QString GridsChanged = QStringLiteral("SKGridsChangedNotification");
inline const QString GridCategoryCreated = QStringLiteral("SKGridCategoryCreatedNotification");
inline const QString GridActionPositionsSaved =
    QStringLiteral("SKGridActionPositionsSavedNotification");
inline const QString TaskFinished = QStringLiteral("SKTaskFinished");
inline const QString TaskShowExitStatus = QStringLiteral("SKTaskShowExitStatus");
inline const QString TaskShowedAlert = QStringLiteral("SKTaskShowedAlert");
inline const QString TasksDeterminateUpdated = QStringLiteral("SKTasksDeterminateUpdated");
inline const QString TasksOverallProgressUpdated = QStringLiteral("SKTasksOverallProgressUpdated");
inline const QString TasksStatusItemAnimationAdvance =
    QStringLiteral("SKTasksStatusItemAnimationAdvance");
inline const QString AllTasksCompleted = QStringLiteral("SKAllTasksCompleted");
inline const QString ReloadUserActionsTable = QStringLiteral("SKReloadUserActionsTable");
inline const QString ActionSingleInstallCompleted =
    QStringLiteral("SKActionSingleInstallCompleted");
inline const QString CloseActionConfigWindows = QStringLiteral("SKCloseActionConfigWindows");
// A button of a user notification was pressed (see UserNotification).
inline const QString UserNotificationResponse = QStringLiteral("SKUserNotificationResponse");
inline const QString NotificationActionIdentifierKey = QStringLiteral("actionIdentifier");
} // namespace Notifications

// Names of the notifications between the command-line tool and the application.
namespace CmdLineNotifications {
inline const QString RunTask = QString::fromLatin1(CmdLineProtocol::RunTask);
inline const QString Running = QString::fromLatin1(CmdLineProtocol::Running);
inline const QString Response = QString::fromLatin1(CmdLineProtocol::Response);
inline const QString Finish = QString::fromLatin1(CmdLineProtocol::Finish);
} // namespace CmdLineNotifications

struct Notification {
    QString name;
    QPointer<QObject> object;
    QVariantMap userInfo;
};

// The application's notification centre: named notifications with an optional sender
// object and user information, delivered synchronously to observers on the posting thread.
// Post from the main thread only, as the rest of the engine does. The engine keeps two: the
// application's, and the distributed one whose notifications reach the command-line tool.
class NotificationCenter {
public:
    using Observer = std::function<void(const Notification&)>;

    // Observes `name` (all names when empty), from `sender` only when one is given.
    // The returned token removes the observer again.
    int addObserver(const QString& name, const QObject* sender, Observer observer);
    void removeObserver(int token);

    void post(const QString& name, QObject* object = nullptr, const QVariantMap& userInfo = {});

private:
    struct Entry {
        QString name;
        QPointer<const QObject> sender;
        bool filtersSender = false;
        Observer observer;
    };
    std::map<int, Entry> m_observers;
    int m_nextToken = 1;
};
