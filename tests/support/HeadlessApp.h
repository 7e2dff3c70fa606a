#pragma once

#include "tests/support/QtPrinting.h"

#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <ostream>

// What one run of sk ended with.
struct SkResult {
    int status = -1; // -1: it did not end in time
    QString out;
    QString err;
};

// The real `skelvo --headless` in a temporary home (HOME, the XDG folders, SKELVO_HOME; no
// display), driven through the real sk as a user's terminal would.
class HeadlessApp {
public:
    HeadlessApp();
    ~HeadlessApp();
    HeadlessApp(const HeadlessApp&) = delete;
    HeadlessApp& operator=(const HeadlessApp&) = delete;

    // Starts the application (with action files or URLs to open) and waits until it answers.
    bool start(const QStringList& arguments = {});
    // Ends it as a desktop session would (SIGTERM); true when it exited with status 0.
    bool stop();
    QProcess& process() { return m_app; }

    SkResult sk(const QStringList& arguments, const QString& workingDirectory = {},
                int timeoutMs = 120000) const;
    // Starts sk without waiting for it.
    std::unique_ptr<QProcess> startSk(const QStringList& arguments,
                                      const QString& workingDirectory = {}) const;

    QString path(const QString& relative = {}) const;
    QString writeFile(const QString& relative, const QByteArray& contents) const;
    // The application's log and the debug console's log.
    QString log() const;
    QString console() const;
    QProcessEnvironment& environment() { return m_environment; }

    // Writes a script action bundle into the user's actions folder and adds it to the grid.
    // `body` is the handler's code, one statement a line, the same for both languages
    // (`true`/`false` become Python's spelling).
    // A click runs the drop handler with no items.
    bool addScriptAction(const QString& name, const QString& body, bool python = false,
                         const QString& extraHeader = {});

    // Checks `done` until it holds or the deadline passes.
    static bool waitUntil(const std::function<bool()>& done, int timeoutMs = 30000);

private:
    QTemporaryDir m_home;
    QProcessEnvironment m_environment;
    QProcess m_app;
};

// One application for a whole test suite: started before its first test, stopped after its
// last. `Suite` keeps each suite's application apart.
template <class Suite, class Base = ::testing::Test> class WithHeadlessApp : public Base {
protected:
    static void SetUpTestSuite()
    {
        app = new HeadlessApp;
        ASSERT_TRUE(app->start());
    }
    static void TearDownTestSuite()
    {
        EXPECT_TRUE(app->stop());
        delete app;
        app = nullptr;
    }
    static inline HeadlessApp* app = nullptr;
};
