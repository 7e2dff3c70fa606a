// Folder monitoring and the screenshot Drop Bar through the real sk and the real application:
// real folders, real script actions, the real two-second settle rule.
#include "tests/support/HeadlessApp.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QThread>

#include <gtest/gtest.h>
#include <signal.h>

namespace {

const QString FileGoneMessage = QStringLiteral(
    "A file was moved or removed before all actions could run. Place actions that move files "
    "last.");

class MonitorEndToEndTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(app.start());
        watched = app.path("In");
        QDir().mkpath(watched);
        // Each run appends "SECONDS PATH" for every file it was given.
        ASSERT_TRUE(app.addScriptAction(
            "Record", QStringLiteral("File.open('%1', 'a') { |f| items.each { |i| "
                                     "f.puts(\"#{Time.now.to_f} #{i}\") } }")
                          .arg(app.path("record.log"))));
    }

    SkResult sk(const QStringList& arguments) const { return app.sk(arguments, app.path()); }
    void add(const QStringList& options) const
    {
        const SkResult added = sk(QStringList{"monitor", "add", watched} + options);
        ASSERT_EQ(added.status, 0) << added.err.toStdString();
    }
    QString write(const QString& name, const QByteArray& contents = "data") const
    {
        return app.writeFile(QStringLiteral("In/") + name, contents);
    }
    // The recorded runs: the time and the path of each file an action was given.
    QList<std::pair<double, QString>> recorded() const
    {
        QList<std::pair<double, QString>> lines;
        QFile log(app.path("record.log"));
        if (log.open(QIODevice::ReadOnly)) {
            for (const QString& line : QString::fromUtf8(log.readAll()).split(u'\n')) {
                const qsizetype space = line.indexOf(u' ');
                if (space > 0) {
                    lines.append({line.left(space).toDouble(), line.mid(space + 1)});
                }
            }
        }
        return lines;
    }
    QStringList recordedPaths() const
    {
        QStringList paths;
        for (const auto& [time, path] : recorded()) {
            paths << path;
        }
        return paths;
    }
    bool waitForRecorded(const QString& path, int timeoutMs = 30000) const
    {
        return HeadlessApp::waitUntil([&] { return recordedPaths().contains(path); }, timeoutMs);
    }
    QJsonObject folderStatus() const
    {
        const QJsonArray folders =
            QJsonDocument::fromJson(sk({"monitor", "list", "--json"}).out.toUtf8()).array();
        return folders.isEmpty() ? QJsonObject() : folders.first().toObject();
    }
    bool waitForState(const QString& state) const
    {
        return HeadlessApp::waitUntil(
            [&] { return folderStatus().value("state").toString() == state; });
    }

    HeadlessApp app;
    QString watched;
};

TEST_F(MonitorEndToEndTest, EachArrivalRunsOnceAfterItSettled)
{
    const QString present = write("present.txt");
    add({"--action", "Record"});
    write("present.txt", "changed after the start");

    // Written slowly for ten seconds: one run, about two seconds after the last write.
    const QString slow = watched + "/slow.txt";
    QFile growing(slow);
    ASSERT_TRUE(growing.open(QIODevice::WriteOnly));
    double lastWrite = 0;
    for (int second = 0; second < 10; ++second) {
        growing.write("chunk\n");
        growing.flush();
        lastWrite = QDateTime::currentMSecsSinceEpoch() / 1000.0;
        QThread::msleep(1000);
    }
    growing.close();
    ASSERT_TRUE(waitForRecorded(slow));
    const double delay = recorded().first().first - lastWrite;
    EXPECT_GE(delay, 2.0);
    EXPECT_LT(delay, 6.0) << "well past the settle time";

    // A rename inside the folder is not a new file; an rsync-style temporary file renamed to
    // its final name is one, under the final name.
    ASSERT_TRUE(QFile::rename(slow, watched + "/renamed.txt"));
    write(".final.txt.Xq3v", "partial");
    ASSERT_TRUE(QFile::rename(watched + "/.final.txt.Xq3v", watched + "/final.txt"));
    // Whatever the steps above set off settles before this last arrival does.
    const QString last = write("last.txt");
    ASSERT_TRUE(waitForRecorded(last));
    EXPECT_EQ(recordedPaths(), (QStringList{slow, watched + "/final.txt", last}));
    EXPECT_FALSE(recordedPaths().contains(present));
}

TEST_F(MonitorEndToEndTest, OwnOutputsDoNotTriggerAndAMovedFileStopsTheBatch)
{
    ASSERT_TRUE(app.addScriptAction(
        "Write Beside",
        "items.each { |i| File.write(i + '.out', 'out'); helper.output_file(i + '.out') }"));
    ASSERT_TRUE(app.addScriptAction(
        "Move Away", QStringLiteral("items.each { |i| File.rename(i, '%1/' + File.basename(i)) }")
                         .arg(app.path())));
    add({"--action", "Write Beside", "--action", "Record"});
    const QString first = write("first.txt");
    ASSERT_TRUE(waitForRecorded(first));
    const QString last = write("last.txt");
    ASSERT_TRUE(waitForRecorded(last));
    EXPECT_TRUE(QFile::exists(first + ".out"));
    EXPECT_EQ(recordedPaths(), (QStringList{first, last})) << "the outputs are no arrivals";

    ASSERT_EQ(sk({"monitor", "remove", watched}).status, 0);
    add({"--action", "Move Away", "--action", "Record"});
    write("moved.txt");
    ASSERT_TRUE(HeadlessApp::waitUntil([&] {
        const QJsonArray runs =
            QJsonDocument::fromJson(sk({"monitor", "log", watched, "--json"}).out.toUtf8()).array();
        return !runs.isEmpty() &&
               runs.first().toObject().value("outcome").toString() == FileGoneMessage;
    }));
    EXPECT_TRUE(QFile::exists(app.path("moved.txt")));
    EXPECT_EQ(recordedPaths().size(), 2) << "the action after the move did not run";
}

TEST_F(MonitorEndToEndTest, WaitingBatchesSurviveARestartAndAReturningFolderIsWatchedAgain)
{
    add({"--action", "Record", "--confirm", "--catch-up"});
    const QString waiting = write("waiting.txt");
    ASSERT_TRUE(HeadlessApp::waitUntil(
        [&] { return !folderStatus().value("waiting").toArray().isEmpty(); }));
    EXPECT_EQ(sk({"monitor", "confirm", app.path("elsewhere")}).status, 1);

    // Stopped with a batch waiting; a file arrives meanwhile.
    ASSERT_TRUE(app.stop());
    const QString meanwhile = write("meanwhile.txt");
    ASSERT_TRUE(app.start());
    ASSERT_TRUE(HeadlessApp::waitUntil(
        [&] { return folderStatus().value("waiting").toArray().size() == 2; }));
    EXPECT_TRUE(recorded().isEmpty()) << "nothing runs before it is confirmed";
    ASSERT_EQ(sk({"monitor", "confirm", watched}).status, 0);
    ASSERT_TRUE(waitForRecorded(meanwhile));
    EXPECT_EQ(recordedPaths(), (QStringList{waiting, meanwhile}));
    EXPECT_EQ(sk({"monitor", "confirm", watched}).status, 1) << "nothing waits any more";

    ASSERT_EQ(sk({"monitor", "add", watched, "--action", "Record"}).status, 1);
    ASSERT_TRUE(QDir(watched).removeRecursively());
    ASSERT_TRUE(waitForState("missing"));
    QDir().mkpath(watched);
    ASSERT_TRUE(waitForState("watching"));
}

TEST_F(MonitorEndToEndTest, AnOverflowingEventQueueLosesNothing)
{
    add({"--action", "Record"});
    // More files than the kernel's default queue of 16,384 events holds, while the
    // application cannot read it.
    constexpr int Count = 17000;
    ASSERT_EQ(::kill(static_cast<pid_t>(app.process().processId()), SIGSTOP), 0);
    for (int i = 0; i < Count; ++i) {
        QFile file(watched + QStringLiteral("/f%1").arg(i));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    }
    ASSERT_EQ(::kill(static_cast<pid_t>(app.process().processId()), SIGCONT), 0);
    ASSERT_TRUE(HeadlessApp::waitUntil([&] { return recorded().size() >= Count; }, 120000));
    const QStringList paths = recordedPaths();
    EXPECT_EQ(QSet<QString>(paths.begin(), paths.end()).size(), Count);
    EXPECT_EQ(paths.size(), Count) << "no file twice";
}

TEST_F(MonitorEndToEndTest, ScreenshotsLandInTheDropBar)
{
    for (const QStringList& setting :
         {QStringList{"ScreenshotsFolder", watched}, {"AutoAddScreenshotsToDropBar", "true"}}) {
        ASSERT_EQ(sk(QStringList{"settings", "set"} + setting).status, 0);
    }
    const QByteArray png("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16);
    const QString notes = write("Screenshot from 2024-05-01 10-11-11.txt", png);
    const QString shot = write("Screenshot from 2024-05-01 10-11-12.png", png);
    QStringList listed;
    ASSERT_TRUE(HeadlessApp::waitUntil([&] {
        listed.clear();
        for (const QJsonValue stack :
             QJsonDocument::fromJson(sk({"list-items", "--json"}).out.toUtf8()).array()) {
            for (const QJsonValue item : stack.toObject().value("items").toArray()) {
                listed << item.toObject().value("path").toString();
            }
        }
        return listed.contains(shot);
    }));
    EXPECT_EQ(listed, QStringList{shot});
}

} // namespace
