#pragma once

#include "builtin/BuiltInAction.h"
#include "builtin/BuiltInActionRunner.h"
#include "core/NotificationCenter.h"
#include "platform/Launcher.h"
#include "store/GridAction.h"
#include "tests/support/EventLoop.h"
#include "tests/support/TestEngine.h"

#include <QStringList>

#include <gtest/gtest.h>
#include <memory>

// Records what would have been opened instead of opening windows.
class FakeLauncher : public Launcher {
public:
    bool openUrl(const QString& url, QString* error) override
    {
        openedUrls << url;
        if (!failWith.isEmpty() && error) {
            *error = failWith;
        }
        return failWith.isEmpty();
    }
    bool launchApplication(const QString& application, const QStringList& filePaths,
                           QString* error) override
    {
        launches << LaunchRequest{application, filePaths};
        if (!failWith.isEmpty() && error) {
            *error = failWith;
        }
        return failWith.isEmpty();
    }

    struct LaunchRequest {
        QString application;
        QStringList files;
    };
    QStringList openedUrls;
    QList<LaunchRequest> launches;
    QString failWith;
};

// A private home, fake presenters and launcher, a fresh runner, and a count of the
// command-line notifications each run posts.
class BuiltInTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ensureCoreApplication();
        m_engine = std::make_unique<TestEngine>(launcher);
        runner = std::make_shared<BuiltInActionRunner>(&engine().builtInContext);
        m_finishToken = engine().distributed.addObserver(
            CmdLineNotifications::Finish, nullptr, [this](const Notification&) { ++finishes; });
        m_responseToken = engine().distributed.addObserver(
            CmdLineNotifications::Response, nullptr, [this](const Notification& note) {
                responses << note.userInfo.value(QStringLiteral("response")).toString();
            });
    }

    void TearDown() override
    {
        engine().distributed.removeObserver(m_finishToken);
        engine().distributed.removeObserver(m_responseToken);
        runner.reset();
        spin(50);
        m_engine.reset();
    }

    GridActionPtr gridAction(const QString& type, const QVariantMap& variables = {},
                             const QString& name = QString())
    {
        auto action = std::make_shared<GridAction>();
        action->type = type;
        action->name = name.isEmpty() ? type : name;
        action->extraVariables = variables;
        return action;
    }

    QString writeFile(const QString& relativePath, const QByteArray& contents)
    {
        return m_engine->home().writeFile(relativePath, contents);
    }
    QString homePath() const { return m_engine->home().path(); }
    FakeDesktopServices& desktop() { return m_engine->desktop(); }
    FakeWindowPresenter& windows() { return m_engine->windows(); }
    Engine& engine() { return m_engine->engine(); }

    // The bodies of the notifications sent, in order.
    QStringList notificationBodies()
    {
        QStringList bodies;
        for (const UserNotification& notification : desktop().notifications) {
            bodies << notification.body;
        }
        return bodies;
    }

    bool waitForIdle(int timeoutMs = 10000)
    {
        return waitUntil([this] { return runner->runningBuiltInActions().isEmpty(); }, timeoutMs);
    }

    std::shared_ptr<FakeLauncher> launcher = std::make_shared<FakeLauncher>();
    std::shared_ptr<BuiltInActionRunner> runner;
    int finishes = 0;
    QStringList responses;

private:
    std::unique_ptr<TestEngine> m_engine;
    int m_finishToken = 0;
    int m_responseToken = 0;
};
