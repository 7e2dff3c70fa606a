#include "core/NotificationCenter.h"

#include <QObject>

#include <gtest/gtest.h>

TEST(NotificationCenter, DeliversNameObjectAndUserInfoToMatchingObservers)
{
    NotificationCenter center;
    QObject sender;
    QObject other;
    QStringList seen;
    const int byName =
        center.addObserver(Notifications::TaskFinished, nullptr, [&](const Notification& n) {
            seen << QStringLiteral("name:") +
                        n.userInfo.value(QStringLiteral("lastCommand")).toString();
            EXPECT_EQ(n.object.data(), &sender);
        });
    const int bySender =
        center.addObserver(Notifications::TaskFinished, &other,
                           [&](const Notification&) { seen << QStringLiteral("other"); });
    const int all = center.addObserver({}, nullptr, [&](const Notification& n) { seen << n.name; });

    center.post(Notifications::TaskFinished, &sender,
                {{QStringLiteral("lastCommand"), QStringLiteral("URL")}});
    center.post(Notifications::AllTasksCompleted);
    EXPECT_EQ(seen, (QStringList{QStringLiteral("name:URL"), QStringLiteral("SKTaskFinished"),
                                 QStringLiteral("SKAllTasksCompleted")}));

    for (int token : {byName, bySender, all}) {
        center.removeObserver(token);
    }
    seen.clear();
    center.post(Notifications::TaskFinished, &sender);
    EXPECT_TRUE(seen.isEmpty());
}

TEST(NotificationCenter, ObserversMayRemoveThemselvesAndDestroyedSendersMatchNothing)
{
    NotificationCenter center;
    int calls = 0;
    int second = 0;
    int first = 0;
    first = center.addObserver(QStringLiteral("X"), nullptr, [&](const Notification&) {
        ++calls;
        center.removeObserver(first);
        center.removeObserver(second);
    });
    second = center.addObserver(QStringLiteral("X"), nullptr,
                                [&](const Notification&) { calls += 100; });
    auto sender = std::make_unique<QObject>();
    center.addObserver(QStringLiteral("X"), sender.get(), [&](const Notification&) { ++calls; });
    sender.reset();
    center.post(QStringLiteral("X"));
    center.post(QStringLiteral("X"));
    EXPECT_EQ(calls, 1);
}
