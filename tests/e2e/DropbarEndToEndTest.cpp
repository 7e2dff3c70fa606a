// The Drop Bar through the real sk: add rules, saved text, stack commands, followed files,
// clean-up of Skelvo's own copies, restarts and a kill in the middle of a large add.
#include "tests/support/HeadlessApp.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QThread>

#include <gtest/gtest.h>
#include <sqlite3.h>

namespace {

const QJsonArray stacksOf(const HeadlessApp& app)
{
    return QJsonDocument::fromJson(app.sk({"list-items", "--json"}).out.toUtf8()).array();
}

QString readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

// What PRAGMA integrity_check says of the database `file`, opened read-only.
QString integrityOf(const QString& file)
{
    QString verdict;
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(file.toUtf8().constData(), &db, SQLITE_OPEN_READONLY, nullptr) == 0) {
        const auto collect = [](void* out, int, char** values, char**) {
            *static_cast<QString*>(out) += QString::fromUtf8(values[0]);
            return 0;
        };
        sqlite3_exec(db, "PRAGMA integrity_check", collect, &verdict, nullptr);
    }
    sqlite3_close(db);
    return verdict;
}

class DropbarEndToEndTest : public WithHeadlessApp<DropbarEndToEndTest> {
protected:
    void SetUp() override
    {
        for (const char* name : {"a", "b", "c"}) {
            dir = QFileInfo(app->writeFile(QStringLiteral("drop/") + name, name)).path();
        }
        ASSERT_EQ(app->sk({"clear"}).status, 0);
    }
    // Runs sk in the folder of the test files, `input` on its standard input.
    static SkResult run(const QStringList& arguments, const QByteArray& input = {})
    {
        const auto sk = app->startSk(arguments, app->path("drop"));
        sk->write(input);
        sk->closeWriteChannel();
        sk->waitForFinished(60000);
        return {sk->exitCode(), QString::fromUtf8(sk->readAllStandardOutput()),
                QString::fromUtf8(sk->readAllStandardError())};
    }
    // The stacks as "NAME-OR-TITLE:ITEMS", with a "*" for a locked one.
    static QString shape()
    {
        QStringList stacks;
        for (const QJsonValue& stack : stacksOf(*app)) {
            stacks << (stack["name"].isNull() ? stack["title"] : stack["name"]).toString() +
                          (stack["locked"].toBool() ? "*:" : ":") +
                          QString::number(stack["items"].toArray().size());
        }
        return stacks.join(u' ');
    }
    struct Row {
        QStringList arguments;
        int status;
        QString answer; // standard output on success, standard error otherwise
        QString shape;  // after the command
        QByteArray input = {};
    };
    static void check(const Row& row)
    {
        const QByteArray before = app->sk({"list-items", "--json"}).out.toUtf8();
        const SkResult result = run(row.arguments, row.input);
        const QString what = row.arguments.join(u' ');
        const QString told = row.status == 0 ? result.out : result.err;
        EXPECT_EQ(result.status, row.status) << what << "\n" << result.err;
        EXPECT_TRUE(row.status == 2 ? told.startsWith(row.answer) : told == row.answer) << told;
        EXPECT_EQ(shape(), row.shape) << what;
        if (row.status != 0) {
            EXPECT_EQ(app->sk({"list-items", "--json"}).out.toUtf8(), before) << what;
        }
    }
    static QString added(const char* count, int index)
    {
        return QStringLiteral("Successfully added %1 to stack at index %2\n").arg(count).arg(index);
    }
    QString dir;
};

TEST_F(DropbarEndToEndTest, AddRulesAndAnswers)
{
    const QString absent =
        "Error: Stack index %1 does not exist. Use 'sk list-items' to see available stacks.\n";
    const QString missing = "Error: The following files do not exist: " + dir + "/nope\n";
    const QString oneName = "Error: --name can only name one stack. Without --stack, each file is "
                            "added as a separate stack — add --stack to combine them into one "
                            "named stack.\n";
    const QString newOnly = "Error: --name only applies to new stacks. Use 'sk rename 1 \"…\"' to "
                            "rename an existing stack.\n";
    const QByteArray stdinB = dir.toUtf8() + "/b\r\n";
    const Row rows[] = {
        {{"add", "a", "b"}, 0, added("1 item", 2) + added("1 item", 3), "B:1 a:1 b:1"},
        {{"add", "a", "b", "--stack", "--name", "P"}, 0, added("2 items", 2), "B:1 P:2"},
        {{"add", "a", "--name", "  P  "}, 0, added("1 item", 2), "B:1 P:1"},
        {{"add", "a", "b", "--name", "X"}, 1, oneName, "B:1"},
        {{"add", "a", "--stack-index", "1", "--name", "X"}, 1, newOnly, "B:1"},
        {{"add", "a", "--stack-index", "2"}, 1, absent.arg(2), "B:1"},
        {{"add", "a", "--stack-index", "0"}, 1, absent.arg(0), "B:1"},
        {{"add", "a", "b", "--stack-index", "1"}, 0, added("2 items", 1), "B:3"},
        {{"add", "a", "nope", "b"}, 1, missing, "B:1"},
        {{"add", "--text", "hi"}, 0, added("1 item", 2), "B:1 hi:1"},
        {{"add", "a", "--text", "hi", "--stack"}, 0, added("2 items", 2), "B:1 2 Items:2"},
        // Blank lines are skipped, a line's carriage return dropped.
        {{"add", "-", "--stack"}, 0, added("2 items", 2), "B:1 2 Items:2", "a\n\n" + stdinB},
        {{"add", "-"}, 1, missing, "B:1", "a\nnope\n"},
        {{"add", "-"}, 2, "sk: add: ", "B:1", "\n"},
        {{"add"}, 2, "sk: add: needs FILES", "B:1"},
        {{"request", R"({"action":"add"})"}, 1, "Error: No files provided to add\n", "B:1"},
    };
    for (const Row& row : rows) {
        ASSERT_EQ(run({"clear"}).status, 0);
        ASSERT_EQ(run({"add", "c", "--name", "B"}).status, 0);
        check(row);
    }
}

TEST_F(DropbarEndToEndTest, TextItemsAreSavedAsFiles)
{
    const QString saved = app->path("data/Skelvo/Saved Text/");
    const QString texts[] = {"  Hello world  ", "  Hello world  ", " \n\t ",
                             "  Grüße aus Köln ☕\nzweite Zeile"};
    for (const QString& text : texts) {
        ASSERT_EQ(run({"add", "--text", text}).status, 0);
    }
    const QJsonArray stacks = stacksOf(*app);
    ASSERT_EQ(stacks.size(), 4);
    QStringList names;
    for (int i = 0; i < 4; ++i) {
        const QJsonObject item = stacks[i]["items"][0].toObject();
        EXPECT_EQ(item["text"].toString(), texts[i]);
        const QString path = item["path"].toString();
        EXPECT_TRUE(path.startsWith(saved)) << path;
        EXPECT_EQ(readAll(path), texts[i]) << path;
        names << QFileInfo(path).fileName();
    }
    EXPECT_EQ(names[0], "Hello world.txt");
    EXPECT_EQ(names[1], "Hello world-1.txt");
    const QRegularExpression dated(R"(^Text Saved at (0\d|1[0-2])-[0-3]\d-20\d\d )"
                                   R"((0\d|1[0-2])-[0-5]\d-[0-5]\d (AM|PM)\.txt$)");
    EXPECT_TRUE(dated.match(names[2]).hasMatch()) << names[2];
    EXPECT_EQ(names[3], "Grüße aus Köln ☕ zweite Zeile.txt");
}

TEST_F(DropbarEndToEndTest, StackCommandsAndIndexes)
{
    run({"add", "a", "--name", "F"});
    run({"add", "--text", "note"});
    const QString invalid = "Error: Item at index 0 is not a valid stack dictionary.\n";
    const QString out = "3 is out of bounds.\n";
    const QString textOnly = "Error: Cannot rename a stack that contains only text items.\n";
    const auto request = [](const char* json) { return QStringList{"request", json}; };
    const auto lock = [](const char* word, int index) {
        return QStringLiteral("%1 stack at index %2\n").arg(word).arg(index);
    };
    const auto done = [](const char* what, int index) {
        return QStringLiteral("Successfully %1 stack at index %2\n").arg(what).arg(index);
    };
    const Row rows[] = {
        {{"rename", "0", "X"}, 1, invalid, "F:1 note:1"},
        {{"rename", "3", "X"}, 1, out, "F:1 note:1"},
        {{"rename", "2", "X"}, 1, textOnly, "F:1 note:1"},
        {{"rename", "1", "--reset"}, 0, done("reset name for", 1), "a:1 note:1"},
        {{"rename", "1", "New"}, 0, done("renamed", 1), "New:1 note:1"},
        // The arguments are checked before the index is looked at.
        {request(R"({"action":"rename","index":9,"newName":"Y","reset":true})"), 1,
         "Error: Cannot provide both a new name and --reset flag.\n", "New:1 note:1"},
        {request(R"({"action":"rename","index":9})"), 1,
         "Error: Must provide either a new name or --reset flag.\n", "New:1 note:1"},
        {request(R"({"action":"rename","newName":"Y"})"), 1,
         "Error: Missing index for rename command.\n", "New:1 note:1"},
        {{"lock", "0"}, 1, invalid, "New:1 note:1"},
        {{"lock", "3"}, 1, out, "New:1 note:1"},
        {{"lock", "1"}, 0, lock("Locked", 1), "New*:1 note:1"},
        {{"unlock", "0"}, 1, invalid, "New*:1 note:1"},
        {{"unlock", "2"}, 0, lock("Unlocked", 2), "New*:1 note:1"},
        {{"remove", "0"}, 1, invalid, "New*:1 note:1"},
        {{"remove", "3"}, 1, out, "New*:1 note:1"},
        {request(R"({"action":"remove"})"), 1, "Error: Missing index for remove command.\n",
         "New*:1 note:1"},
        {{"remove", "2"}, 0, done("removed", 2), "New*:1"},
        {{"add", "b", "c"}, 0, added("1 item", 2) + added("1 item", 3), "New*:1 b:1 c:1"},
        {{"lock", "2"}, 0, lock("Locked", 2), "New*:1 b*:1 c:1"},
        // A locked stack stays, emptied, and takes its automatic title again.
        {{"clear"}, 0, "Successfully cleared Drop Bar items\n", "New*:0 0 Items*:0"},
        {{"unlock", "1"}, 0, lock("Unlocked", 1), "New:0 0 Items*:0"},
        {{"unlock", "2"}, 0, lock("Unlocked", 2), "New:0 0 Items:0"},
        {{"clear"}, 0, "Successfully cleared Drop Bar items\n", ""},
    };
    for (const Row& row : rows) {
        check(row);
    }
}

TEST_F(DropbarEndToEndTest, FilesAreFollowedAndMissingOnesShown)
{
    run({"add", "a", "b"});
    // Listed before and after each change: a listing only looks again where a folder changed.
    stacksOf(*app);
    ASSERT_TRUE(QFile::rename(dir + "/a", dir + "/first"));
    EXPECT_EQ(stacksOf(*app)[0]["items"][0]["path"].toString(), dir + "/first");
    ASSERT_TRUE(QFile::rename(dir + "/first", dir + "/renamed"));
    ASSERT_TRUE(QFile::remove(dir + "/b"));
    const QJsonArray stacks = stacksOf(*app);
    ASSERT_EQ(stacks.size(), 2);
    EXPECT_EQ(stacks[0]["items"][0]["path"].toString(), dir + "/renamed");
    EXPECT_FALSE(stacks[0]["items"][0]["missing"].toBool());
    EXPECT_TRUE(stacks[1]["items"][0]["missing"].toBool());
    EXPECT_EQ(run({"list-items"}).out, "\nCurrent Drop Bar Items:\n1: renamed (1 item)\n    " +
                                           dir + "/renamed\n2: b (1 item)\n    (missing) " + dir +
                                           "/b\n");
}

TEST_F(DropbarEndToEndTest, RemovingDeletesOnlySkelvosOwnCopies)
{
    run({"add", "a", "--text", "bye", "--stack"});
    const QString savedText = stacksOf(*app)[0]["items"][1]["path"].toString();
    ASSERT_TRUE(QFileInfo::exists(savedText));
    run({"add", "b"});
    EXPECT_EQ(run({"remove", "1"}).status, 0);
    EXPECT_FALSE(QFileInfo::exists(savedText));
    EXPECT_EQ(run({"clear"}).status, 0);
    EXPECT_EQ(readAll(dir + "/a") + readAll(dir + "/b"), "ab");

    ASSERT_EQ(QProcess::execute("vips", {"black", dir + "/image.png", "40", "20"}), 0);
    // Choice 3: a fresh folder under "Action Outputs", its images sent to the Drop Bar.
    const QStringList options = {"output_width=10", "output_folder_option=3", "keep_originals=yes"};
    ASSERT_EQ(run(QStringList{"add-action", "Resize Images", "--options"} + options).status, 0);
    ASSERT_EQ(run({"run", "Resize Images", "image.png"}).status, 0);
    QString output;
    ASSERT_TRUE(HeadlessApp::waitUntil([&] {
        output = stacksOf(*app)[0]["items"][0]["path"].toString();
        return !output.isEmpty();
    }));
    const QString folder = QFileInfo(output).absolutePath();
    EXPECT_EQ(QFileInfo(folder).dir().path(), app->path("data/Skelvo/Action Outputs"));
    EXPECT_TRUE(QFileInfo(folder).fileName().startsWith("SkActionOutput-")) << folder;
    EXPECT_EQ(run({"remove", "1"}).status, 0);
    EXPECT_FALSE(QFileInfo::exists(folder));
    EXPECT_TRUE(QFileInfo::exists(dir + "/image.png"));
}

TEST_F(DropbarEndToEndTest, ARestartKeepsTheStacksAndDropsLeftovers)
{
    const QString kept = app->writeFile("data/Skelvo/Promised Files/SkFilePromise-y/kept.txt", "");
    const QString leftover = app->writeFile("data/Skelvo/Promised Files/SkFilePromise-x/f", "");
    const QString orphan = app->writeFile("data/Skelvo/Saved Text/orphan.txt", "");
    run({"add", "a", kept, "--stack", "--name", "Named"});
    run({"add", "b", "--text", "kept text", "--stack"});
    run({"add", "c"});
    run({"lock", "2"});
    const QByteArray before = app->sk({"list-items", "--json"}).out.toUtf8();
    ASSERT_TRUE(app->stop());
    ASSERT_TRUE(app->start());
    EXPECT_EQ(app->sk({"list-items", "--json"}).out.toUtf8(), before);
    EXPECT_EQ(shape(), "Named:2 2 Items*:2 c:1");
    EXPECT_FALSE(QFileInfo::exists(QFileInfo(leftover).path()));
    EXPECT_FALSE(QFileInfo::exists(orphan));
    EXPECT_TRUE(QFileInfo::exists(kept));
    EXPECT_EQ(readAll(app->path("data/Skelvo/Saved Text/kept text.txt")), "kept text");
}

// Whenever the application dies, a stack added in one request is there whole or not at all.
TEST(DropbarEndToEndKill, AKilledAddLeavesAWholeStackOrNone)
{
    HeadlessApp app;
    ASSERT_TRUE(app.start());
    QStringList add = {"add", "--stack"};
    for (int i = 0; i < 1000; ++i) {
        add << app.writeFile(QStringLiteral("many/file-%1.txt").arg(i), "");
    }
    const QString database = app.path("data/Skelvo/Actions5.skdb");
    // -2: the moment the store's log grows, that is while the stack is written; -1: after
    // the answer; otherwise milliseconds after sk started.
    for (const int delayMs : {0, 5, -2, -2, -1}) {
        const qint64 logBefore = QFileInfo(database + "-wal").size();
        const auto sk = app.startSk(add);
        if (delayMs == -2) {
            // Polled without pause: the write takes only milliseconds.
            QElapsedTimer clock;
            clock.start();
            while (QFileInfo(database + "-wal").size() == logBefore && clock.elapsed() < 20000) {
            }
        } else if (delayMs >= 0) {
            QThread::msleep(static_cast<unsigned long>(delayMs));
        } else {
            ASSERT_TRUE(sk->waitForFinished(60000));
            EXPECT_EQ(sk->readAllStandardOutput(),
                      "Successfully added 1000 items to stack at index 1\n");
        }
        app.process().kill();
        app.process().waitForFinished();
        sk->waitForFinished(60000);
        ASSERT_TRUE(app.start()) << delayMs;
        const QJsonArray stacks = stacksOf(app);
        EXPECT_TRUE(stacks.isEmpty() ||
                    (stacks.size() == 1 && stacks[0]["items"].toArray().size() == 1000))
            << delayMs << ": " << stacks.size() << " stacks";
        EXPECT_TRUE(delayMs != -1 || stacks.size() == 1);
        ASSERT_EQ(app.sk({"clear"}).status, 0);
        ASSERT_TRUE(app.stop());

        EXPECT_EQ(integrityOf(database), "ok") << delayMs;
        ASSERT_TRUE(app.start());
    }
}

} // namespace
