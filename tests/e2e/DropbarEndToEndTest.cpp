// The Drop Bar through the real sk: add rules, saved text, stack commands, followed files,
// clean-up of Skelvo's own copies, restarts and a kill in the middle of a large add.
#include "tests/support/HeadlessApp.h"

#include <QDir>
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

class DropbarEndToEndTest : public WithHeadlessApp<DropbarEndToEndTest> {
protected:
    void SetUp() override
    {
        dir = QFileInfo(app->writeFile("drop/a.txt", "a")).absolutePath();
        app->writeFile("drop/b.txt", "b");
        app->writeFile("drop/c.txt", "c");
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
    // The stacks as "NAME-OR-TITLE:ITEMS", a "*" after a locked one's name.
    static QString shape()
    {
        QStringList stacks;
        for (const QJsonValue& stack : stacksOf(*app)) {
            const QJsonValue name = stack["name"];
            stacks << (name.isNull() ? stack["title"] : name).toString() +
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
        EXPECT_EQ(result.status, row.status) << what << "\n" << result.err;
        const QString told = row.status == 0 ? result.out : result.err;
        EXPECT_TRUE(row.status == 2 ? told.startsWith(row.answer) : told == row.answer)
            << what << ": " << told;
        EXPECT_EQ(shape(), row.shape) << what;
        if (row.status != 0) {
            EXPECT_EQ(app->sk({"list-items", "--json"}).out.toUtf8(), before) << what;
        }
    }
    QString dir;
};

TEST_F(DropbarEndToEndTest, AddRulesAndAnswers)
{
    const QString added = "Successfully added %1 to stack at index %2\n";
    const QString notThere = "Error: Stack index %1 does not exist. Use 'sk list-items' to see "
                             "available stacks.\n";
    const Row rows[] = {
        {{"add", "a.txt", "b.txt"},
         0,
         added.arg("1 item", "2") + added.arg("1 item", "3"),
         "Base:1 a.txt:1 b.txt:1"},
        {{"add", "a.txt", "b.txt", "--stack", "--name", "Pair"},
         0,
         added.arg("2 items", "2"),
         "Base:1 Pair:2"},
        {{"add", "a.txt", "b.txt", "--name", "X"},
         1,
         "Error: --name can only name one stack. Without --stack, each file is added as a "
         "separate stack — add --stack to combine them into one named stack.\n",
         "Base:1"},
        {{"add", "a.txt", "--stack-index", "1", "--name", "X"},
         1,
         "Error: --name only applies to new stacks. Use 'sk rename 1 \"…\"' to rename an "
         "existing stack.\n",
         "Base:1"},
        {{"add", "a.txt", "--stack-index", "2"}, 1, notThere.arg(2), "Base:1"},
        {{"add", "a.txt", "--stack-index", "0"}, 1, notThere.arg(0), "Base:1"},
        {{"add", "a.txt", "b.txt", "--stack-index", "1"}, 0, added.arg("2 items", "1"), "Base:3"},
        {{"add", "a.txt", "missing.txt", "b.txt"},
         1,
         "Error: The following files do not exist: " + dir + "/missing.txt\n",
         "Base:1"},
        {{"add", "--text", "hi"}, 0, added.arg("1 item", "2"), "Base:1 hi:1"},
        {{"add", "a.txt", "--text", "hi", "--stack"},
         0,
         added.arg("2 items", "2"),
         "Base:1 2 Items:2"},
        {{"add", "-", "--stack"},
         0,
         added.arg("2 items", "2"),
         "Base:1 2 Items:2",
         "a.txt\n\n" + dir.toUtf8() + "/b.txt\r\n"},
        {{"add", "-"},
         1,
         "Error: The following files do not exist: " + dir + "/nope\n",
         "Base:1",
         "a.txt\nnope\n"},
        {{"add", "-"}, 2, "sk: add: ", "Base:1", "\n"},
        {{"add"}, 2, "sk: add: needs FILES", "Base:1"},
        {{"request", R"({"action":"add","files":[]})"},
         1,
         "Error: No files provided to add\n",
         "Base:1"},
    };
    for (const Row& row : rows) {
        ASSERT_EQ(run({"clear"}).status, 0);
        ASSERT_EQ(run({"add", "c.txt", "--name", "Base"}).status, 0);
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
    EXPECT_TRUE(QRegularExpression(R"(^Text Saved at (0\d|1[0-2])-[0-3]\d-20\d\d )"
                                   R"((0\d|1[0-2])-[0-5]\d-[0-5]\d (AM|PM)\.txt$)")
                    .match(names[2])
                    .hasMatch())
        << names[2];
    EXPECT_EQ(names[3], "Grüße aus Köln ☕ zweite Zeile.txt");
}

TEST_F(DropbarEndToEndTest, StackCommandsAndIndexes)
{
    run({"add", "a.txt", "--name", "Files"});
    run({"add", "--text", "note"});
    const QString invalid = "Error: Item at index 0 is not a valid stack dictionary.\n";
    const auto request = [](const char* json) { return QStringList{"request", json}; };
    const Row rows[] = {
        {{"rename", "0", "X"}, 1, invalid, "Files:1 note:1"},
        {{"rename", "3", "X"}, 0, "3 is out of bounds.\n", "Files:1 note:1"},
        {{"rename", "2", "X"},
         1,
         "Error: Cannot rename a stack that contains only text items.\n",
         "Files:1 note:1"},
        {{"rename", "1", "--reset"},
         0,
         "Successfully reset name for stack at index 1\n",
         "a.txt:1 note:1"},
        {{"rename", "1", "New"}, 0, "Successfully renamed stack at index 1\n", "New:1 note:1"},
        // The arguments are checked before the index is looked at.
        {request(R"({"action":"rename","index":9,"newName":"Y","reset":true})"), 1,
         "Error: Cannot provide both a new name and --reset flag.\n", "New:1 note:1"},
        {request(R"({"action":"rename","index":9})"), 1,
         "Error: Must provide either a new name or --reset flag.\n", "New:1 note:1"},
        {request(R"({"action":"rename","newName":"Y"})"), 1,
         "Error: Missing index for rename command.\n", "New:1 note:1"},
        {{"lock", "0"}, 1, invalid, "New:1 note:1"},
        {{"lock", "3"}, 0, "3 is out of bounds.\n", "New:1 note:1"},
        {{"lock", "1"}, 0, "Locked stack at index 1\n", "New*:1 note:1"},
        {{"unlock", "0"}, 1, invalid, "New*:1 note:1"},
        {{"unlock", "2"}, 0, "Unlocked stack at index 2\n", "New*:1 note:1"},
        {{"remove", "0"}, 1, invalid, "New*:1 note:1"},
        {{"remove", "3"}, 0, "3 is out of bounds.\n", "New*:1 note:1"},
        {request(R"({"action":"remove"})"), 1, "Error: Missing index for remove command.\n",
         "New*:1 note:1"},
        {{"remove", "2"}, 0, "Successfully removed stack at index 2\n", "New*:1"},
        {{"add", "b.txt", "c.txt"},
         0,
         "Successfully added 1 item to stack at index 2\nSuccessfully added 1 item to stack at "
         "index 3\n",
         "New*:1 b.txt:1 c.txt:1"},
        {{"lock", "2"}, 0, "Locked stack at index 2\n", "New*:1 b.txt*:1 c.txt:1"},
        // A locked stack stays, emptied, and takes its automatic title again.
        {{"clear"}, 0, "Successfully cleared Drop Bar items\n", "New*:0 0 Items*:0"},
        {{"unlock", "1"}, 0, "Unlocked stack at index 1\n", "New:0 0 Items*:0"},
        {{"unlock", "2"}, 0, "Unlocked stack at index 2\n", "New:0 0 Items:0"},
        {{"clear"}, 0, "Successfully cleared Drop Bar items\n", ""},
    };
    for (const Row& row : rows) {
        check(row);
    }
}

TEST_F(DropbarEndToEndTest, FilesAreFollowedAndMissingOnesShown)
{
    run({"add", "a.txt", "b.txt"});
    ASSERT_TRUE(QFile::rename(dir + "/a.txt", dir + "/renamed.txt"));
    ASSERT_TRUE(QFile::remove(dir + "/b.txt"));
    const QJsonArray stacks = stacksOf(*app);
    ASSERT_EQ(stacks.size(), 2);
    EXPECT_EQ(stacks[0]["items"][0]["path"].toString(), dir + "/renamed.txt");
    EXPECT_FALSE(stacks[0]["items"][0]["missing"].toBool());
    EXPECT_TRUE(stacks[1]["items"][0]["missing"].toBool());
    EXPECT_EQ(run({"list-items"}).out, "\nCurrent Drop Bar Items:\n1: renamed.txt (1 item)\n    " +
                                           dir + "/renamed.txt\n2: b.txt (1 item)\n    (missing) " +
                                           dir + "/b.txt\n");
}

TEST_F(DropbarEndToEndTest, RemovingDeletesOnlySkelvosOwnCopies)
{
    run({"add", "a.txt", "--text", "bye", "--stack"});
    const QString savedText = stacksOf(*app)[0]["items"][1]["path"].toString();
    ASSERT_TRUE(QFileInfo::exists(savedText));
    run({"add", "b.txt"});
    EXPECT_EQ(run({"remove", "1"}).status, 0);
    EXPECT_FALSE(QFileInfo::exists(savedText));
    EXPECT_EQ(run({"clear"}).status, 0);
    EXPECT_EQ(readAll(dir + "/a.txt") + readAll(dir + "/b.txt"), "ab");

    ASSERT_EQ(QProcess::execute("vips", {"black", dir + "/image.png", "40", "20"}), 0);
    ASSERT_EQ(run({"add-action", "Resize Images", "--options", "output_width=10",
                   "output_folder_option=3", "keep_originals=yes"})
                  .status,
              0);
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
    run({"add", "a.txt", kept, "--stack", "--name", "Named"});
    run({"add", "b.txt", "--text", "kept text", "--stack"});
    run({"add", "c.txt"});
    run({"lock", "2"});
    const QByteArray before = app->sk({"list-items", "--json"}).out.toUtf8();
    ASSERT_TRUE(app->stop());
    ASSERT_TRUE(app->start());
    EXPECT_EQ(app->sk({"list-items", "--json"}).out.toUtf8(), before);
    EXPECT_EQ(shape(), "Named:2 2 Items*:2 c.txt:1");
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
    for (const int delayMs : {0, 5, 20, 60, -1}) {
        const auto sk = app.startSk(add);
        if (delayMs >= 0) {
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
            << delayMs << ": " << QJsonDocument(stacks).toJson().toStdString().substr(0, 300);
        EXPECT_TRUE(delayMs >= 0 || stacks.size() == 1);
        ASSERT_EQ(app.sk({"clear"}).status, 0);
        ASSERT_TRUE(app.stop());

        sqlite3* db = nullptr;
        ASSERT_EQ(
            sqlite3_open_v2(database.toUtf8().constData(), &db, SQLITE_OPEN_READONLY, nullptr),
            SQLITE_OK);
        sqlite3_stmt* check = nullptr;
        QString verdict;
        if (sqlite3_prepare_v2(db, "PRAGMA integrity_check", -1, &check, nullptr) == SQLITE_OK &&
            sqlite3_step(check) == SQLITE_ROW) {
            verdict =
                QString::fromUtf8(reinterpret_cast<const char*>(sqlite3_column_text(check, 0)));
        }
        sqlite3_finalize(check);
        sqlite3_close(db);
        EXPECT_EQ(verdict, "ok") << delayMs;
        ASSERT_TRUE(app.start());
    }
}

} // namespace
