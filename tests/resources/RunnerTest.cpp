// runner.rb and its Ruby and Python helpers as a user sees them: script actions run through
// sk in the real application, checked by sk's answer and the debug console's log.
#include "tests/support/HeadlessApp.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

namespace {

class RunnerTest : public WithHeadlessApp<RunnerTest, ::testing::TestWithParam<bool>> {
protected:
    bool python() const { return GetParam(); }

    // Adds the action in this test's language, under a name of its own, and runs it.
    SkResult run(const QString& name, const QString& body, const QStringList& arguments = {})
    {
        const QString action = name + (python() ? "Py" : "Rb");
        EXPECT_TRUE(app->addScriptAction(action, body, python())) << action;
        return app->sk(QStringList{"run", action} + arguments);
    }
};

TEST_P(RunnerTest, ItemsAndVariablesArriveExactly)
{
    // A click saves values that arrive as variables of the next run; a drop reports all.
    const char* ruby = R"(require "json"
if items.nil?
  helper.save_value("multi", "line one\nline two")
  helper.save_value("quotes", "say \"hi\" \" there\"")
  helper.save_value("path", variables["support_folder"] + "/../../dir \"x\"")
  helper.save_value("key with spaces", "v")
  helper.text("saved")
else
  File.write(variables["support_folder"] + "/../../dump.json",
             JSON.generate("items" => items, "variables" => variables))
  helper.text("dumped")
end)";
    const char* py = R"(import json
if items is None:
    helper.save_value("multi", "line one\nline two")
    helper.save_value("quotes", "say \"hi\" \" there\"")
    helper.save_value("path", variables["support_folder"] + "/../../dir \"x\"")
    helper.save_value("key with spaces", "v")
    helper.text("saved")
else:
    with open(variables["support_folder"] + "/../../dump.json", "w") as dump:
        json.dump({"items": items, "variables": variables}, dump)
    helper.text("dumped"))";
    const QString body = QString::fromUtf8(python() ? py : ruby);
    // The tile's folder must exist, or the tile takes no drop.
    const QString folder = app->path("data/Skelvo/../../dir \"x\"");
    QDir().mkpath(folder);
    ASSERT_EQ(run("Dump", body).out, "saved\n");
    const QString action = python() ? "DumpPy" : "DumpRb";

    QStringList files;
    for (const char* name : {"a \"quoted\" name.txt", "ends with backslash\\", "has \" \" inside",
                             "back\\\"slash quote", "ünïcödé ✓", "rel"}) {
        files << app->writeFile(name, "x");
    }
    const QString text = "He said \"hi\" \"there\"\nVARIABLE: \"not\" \"a variable\"\nends\n";
    struct Drop {
        QStringList arguments;
        QStringList items;
        const char* type;
    };
    for (const Drop& drop : {Drop{files.mid(0, 5) + QStringList{"rel"}, files, "files"},
                             Drop{{"--text", text}, {text}, "text"}}) {
        const SkResult result = app->sk(QStringList{"run", action} + drop.arguments);
        ASSERT_EQ(result.out, "dumped\n") << result.err;
        QFile dump(app->path("dump.json"));
        ASSERT_TRUE(dump.open(QIODevice::ReadOnly));
        const QJsonObject dumped = QJsonDocument::fromJson(dump.readAll()).object();
        EXPECT_EQ(dumped["items"].toVariant().toStringList(), drop.items);
        const QJsonObject variables = dumped["variables"].toObject();
        EXPECT_EQ(variables["dragged_type"].toString(), QString::fromLatin1(drop.type));
        EXPECT_EQ(variables["multi"].toString(), "line one\nline two");
        EXPECT_EQ(variables["quotes"].toString(), "say \"hi\" \" there\"");
        // Written with its quotes escaped; the action gets it back as saved.
        EXPECT_EQ(variables["path"].toString(), folder);
        EXPECT_EQ(variables["key with spaces"].toString(), "v");
    }
}

TEST_P(RunnerTest, HelperCommandsAsTheUserSeesThem)
{
    struct Row {
        const char* body;
        int status;
        const char* out;
        const char* err;      // contained in standard error
        const char* console;  // contained in the debug console's log
        const char* log = ""; // contained in the application's log
    };
    const Row rows[] = {
        {"helper.begin_message(\"Starting\\nsecond line\")\nhelper.determinate(true)\n"
         "helper.progress(12.5)\nhelper.progress(150)\nhelper.progress(-3)\n"
         "helper.determinate(false)\nhelper.finish_message(\"All done\\r\\nreally\")",
         0, "All done\nreally\n", "",
         "Begin_Message: Starting\nsecond line\nDeterminate: 1\nProgress: 12.5\nProgress: 100\n"
         "Progress: 0\nDeterminate: 0\nFinish_Message: All done\nreally\n"},
        {"helper.url_title(\"Title\")\nhelper.url(\"https://example.org/x\")", 0,
         "https://example.org/x\n", "", "URL_Title: Title\nURL: https://example.org/x\n",
         "Clipboard: https://example.org/x"},
        {"helper.text(\"some text\")", 0, "some text\n", "", "Text: some text\n",
         "Clipboard: some text"},
        {"helper.fail(\"It broke\")", 1, "", "Error: It broke\n", "Fail: It broke\n"},
        {"helper.finish_message(\"an error happened\")", 1, "", "Error: an error happened\n", ""},
        {"helper.add_dropbar([\"/no/such/one\"])", 1, "",
         "Error: Add to Drop Bar failed. Path at /no/such/one not found",
         "Add_Dropbar: /no/such/one\n!! Add to Drop Bar failed."},
        {"helper.save_value(\"token\", \"abc123\")\nhelper.remove_value(\"old\")\n"
         "helper.output_file(\"/tmp/out é.txt\")\n"
         "helper.notification_script(\"display notification \\\"hi\\\"\")\n"
         "helper.finish_message(\"ok\")",
         0, "ok\n", "",
         "Save_Value_Name: token\nSave_Value: abc123\nRemove_Value_Name: old\n"
         "Output_File: L3RtcC9vdXQgw6kudHh0\n"
         "Notification_AppleScript: display notification \"hi\"\nFinish_Message: ok\n"},
        // Without a display nobody picks a folder: the action gets nothing.
        {"f = helper.select_folder(\"Pick one\")\ng = helper.select_folder(\" \")\n"
         "helper.text((f or \"none\") + \" \" + (g or \"none\"))",
         0, "none none\n", "", "Select_Folder: Pick one\nSelect_Folder: Choose a folder\n"},
        {"helper.begin_message(\"\")", 1, "", "message must not be empty", ""},
    };
    int index = 0;
    for (const Row& row : rows) {
        const SkResult result =
            run(QStringLiteral("Helper%1").arg(++index), QString::fromUtf8(row.body));
        EXPECT_EQ(result.status, row.status) << row.body << "\n" << result.err;
        EXPECT_EQ(result.out, QString::fromUtf8(row.out)) << row.body;
        EXPECT_TRUE(result.err.contains(QString::fromUtf8(row.err))) << row.body << result.err;
        EXPECT_TRUE(app->console().contains(QString::fromUtf8(row.console))) << row.body;
        EXPECT_TRUE(app->log().contains(QString::fromUtf8(row.log))) << row.body;
    }
}

TEST_P(RunnerTest, OutputNeverUpsetsTheAcknowledgements)
{
    // A lone line break, a lone byte, standard error, a program writing straight to the
    // descriptor, one reading standard input (it must find the end, not the
    // acknowledgements), and an answer longer than a pipe.
    const char* ruby = R"(puts ""
print "x"
$stdout.flush
helper.begin_message("after")
$stderr.puts "a warning"
system("/bin/echo", "from a child process")
got = IO.popen(["cat"], &:read)
helper.text("child read #{got.bytesize} bytes " + "y" * 300_000))";
    const char* py = R"(import subprocess, sys
print("")
print("x", end="", flush=True)
helper.begin_message("after")
print("a warning", file=sys.stderr)
subprocess.run(["/bin/echo", "from a child process"], check=True)
got = subprocess.run(["cat"], stdout=subprocess.PIPE, check=True).stdout
helper.text(f"child read {len(got)} bytes " + "y" * 300_000))";
    const SkResult result = run("Output", QString::fromUtf8(python() ? py : ruby));
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "child read 0 bytes " + QString(300000, u'y') + u'\n');
    EXPECT_TRUE(app->console().contains(
        "!! x\nBegin_Message: after\n!! a warning\n!! from a child process\n"))
        << app->console().right(400);
}

TEST_P(RunnerTest, FailuresReachTheUserWithTheirErrorOutput)
{
    struct Row {
        const char* ruby;
        const char* python;
        QStringList err;
    };
    const Row rows[] = {
        {"helper.begin_message(\"before\")\nraise \"boom from the action\"",
         "helper.begin_message(\"before\")\nraise ValueError(\"boom from the action\")",
         python()
             ? QStringList{"Traceback (most recent call last)", "ValueError: boom from the action",
                           "action.py\", line 11, in dragged"}
             : QStringList{"boom from the action (RuntimeError)", "action.rb:11:in `dragged'",
                           "\tfrom "}},
        {"helper.begin_message(", "helper.begin_message(", {"SyntaxError"}},
        {"exit 3", "import sys\nsys.exit(3)", {"Error: "}},
    };
    int index = 0;
    for (const Row& row : rows) {
        const SkResult result = run(QStringLiteral("Failing%1").arg(++index),
                                    QString::fromUtf8(python() ? row.python : row.ruby));
        EXPECT_EQ(result.status, 1) << row.ruby;
        for (const QString& part : row.err) {
            EXPECT_TRUE(result.err.contains(part)) << part << " in " << result.err;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Languages, RunnerTest, ::testing::Values(false, true),
                         [](const auto& param) { return param.param ? "Python" : "Ruby"; });

TEST(RunnerSetup, InterpretersSingleFileActionsAndTemplates)
{
    HeadlessApp app;
    // A Python action runs with the interpreter its header names.
    const QString used = app.path("used");
    const QString wrapper = app.writeFile(
        "bin/my-python",
        QStringLiteral("#!/bin/sh\necho \"$@\" > '%1'\nexec /usr/bin/python3 \"$@\"\n")
            .arg(used)
            .toUtf8());
    QFile::setPermissions(wrapper, QFile::ReadOwner | QFile::ExeOwner);
    app.writeFile("data/Skelvo/Actions/Single.skelvo",
                  "# Skelvo Action Info\n# Name: Single\n# Description: One file\n"
                  "# Events: Clicked\n# Creator: Tests\n# URL: https://example.org\n\n"
                  "def clicked(variables, helper)\n  helper.text(RUBY_ENGINE)\nend\n");
    // The templates, as the develop sheet copies them.
    for (const char* language : {"Ruby", "Python"}) {
        const QString from =
            QStringLiteral(SKELVO_SOURCE_RESOURCES "/Actions/Custom Action %1 Template.skbundle")
                .arg(language);
        const QString to =
            app.path(QStringLiteral("data/Skelvo/Actions/%1.skbundle").arg(language));
        QDir().mkpath(to);
        for (const QString& file : QDir(from).entryList(QDir::Files)) {
            QFile::copy(QDir(from).filePath(file), QDir(to).filePath(file));
        }
    }
    ASSERT_TRUE(app.start());
    ASSERT_TRUE(
        app.addScriptAction("Wrapped", "helper.text(\"ok\")", true, "# PythonPath: " + wrapper));
    ASSERT_TRUE(app.addScriptAction("NoPython", "pass", true, "# PythonPath: /no/such/python3"));
    EXPECT_EQ(app.sk({"run", "Wrapped"}).out, "ok\n");
    QFile usedFile(used);
    ASSERT_TRUE(usedFile.open(QIODevice::ReadOnly));
    EXPECT_TRUE(usedFile.readAll().contains("skelvo_runner.py"));
    const SkResult missing = app.sk({"run", "NoPython"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_TRUE(missing.err.contains("Cannot start the Python interpreter /no/such/python3"))
        << missing.err;

    EXPECT_EQ(app.sk({"add-action", "Single"}).status, 0);
    EXPECT_EQ(app.sk({"run", "Single"}).out, "ruby\n");

    const QString data = app.writeFile("data.txt", "12345");
    for (const char* language : {"Ruby", "Python"}) {
        const QString name = QStringLiteral("Custom Action %1 Template").arg(language);
        EXPECT_EQ(app.sk({"add-action", name}).status, 0) << name;
        EXPECT_EQ(app.sk({"run", name, data}).out, "Received 1 items with 5 bytes in files\n");
        EXPECT_EQ(app.sk({"run", name, "--text", "hello"}).out, "Received 5 characters of text\n");
        EXPECT_EQ(app.sk({"run", name}).out, "Clicked in Skelvo 5.0\n");
    }
    EXPECT_TRUE(app.console().contains(
        "Begin_Message: Measuring 1 items\nDeterminate: 1\nProgress: 100\n"));
}

} // namespace
