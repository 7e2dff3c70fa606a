// runner.rb and the helper libraries, run as real Ruby and Python children with Skelvo's
// environment, with this test playing Skelvo's side of the pipe.

#include "tests/resources/RunnerHarness.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace runner_test;

namespace {

enum class Language { Ruby, Python };

std::string languageName(const testing::TestParamInfo<Language>& info)
{
    return info.param == Language::Ruby ? "Ruby" : "Python";
}

// Test actions, one source per language. Each reads what it needs from its variables.
struct Script {
    const char* ruby;
    const char* python;
};

// Writes what it was given to the file in "dump_file".
const Script DumpAction{R"RB(require "json"

def dump(event, items, variables, helper)
  File.write(variables["dump_file"], JSON.generate("event" => event, "items" => items,
                                                   "variables" => variables))
  helper.begin_message("dumped #{event}")
end

def dragged(items, variables, helper)
  dump("dragged", items, variables, helper)
end

def clicked(variables, helper)
  dump("clicked", nil, variables, helper)
end

def test_connection(variables, helper)
  dump("test_connection", nil, variables, helper)
end

def authorize(variables, helper)
  dump("authorize", nil, variables, helper)
end
)RB",
                        R"PY(import json


def dump(event, items, variables, helper):
    with open(variables["dump_file"], "w", encoding="utf-8") as handle:
        json.dump({"event": event, "items": items, "variables": variables}, handle)
    helper.begin_message(f"dumped {event}")


def dragged(items, variables, helper):
    dump("dragged", items, variables, helper)


def clicked(variables, helper):
    dump("clicked", None, variables, helper)


def test_connection(variables, helper):
    dump("test_connection", None, variables, helper)


def authorize(variables, helper):
    dump("authorize", None, variables, helper)
)PY"};

// Calls every helper method once, in the order of the expected lines below.
const Script EveryHelperAction{R"RB(def clicked(variables, helper)
  helper.begin_message("Starting\nsecond line")
  helper.determinate(true)
  helper.determinate(false)
  helper.progress(42)
  helper.progress(12.5)
  helper.progress(150)
  helper.finish_message("All done")
  helper.fail("It broke")
  helper.url_title("Title")
  helper.url("https://example.org/x")
  helper.text("some text")
  helper.error_title("Oops")
  helper.error("Bad\r\nthing")
  helper.alert_title("Note")
  helper.alert("Hello")
  helper.save_value("token", "abc123")
  helper.remove_value("old")
  helper.output_file("/tmp/out é.txt")
  helper.add_dropbar(["/tmp/one", "/tmp/two"])
  helper.notification_script("display notification \"hi\"")
  first = helper.select_folder("Pick one")
  second = helper.select_folder("")
  helper.begin_message("first=#{first || 'none'}")
  helper.begin_message("second=#{second || 'none'}")
  begin
    helper.begin_message("")
  rescue ArgumentError
    helper.begin_message("refused empty")
  end
  begin
    helper.alert(" \t ")
  rescue ArgumentError
    helper.begin_message("refused blank")
  end
end
)RB",
                               R"PY(def clicked(variables, helper):
    helper.begin_message("Starting\nsecond line")
    helper.determinate(True)
    helper.determinate(False)
    helper.progress(42)
    helper.progress(12.5)
    helper.progress(150)
    helper.finish_message("All done")
    helper.fail("It broke")
    helper.url_title("Title")
    helper.url("https://example.org/x")
    helper.text("some text")
    helper.error_title("Oops")
    helper.error("Bad\r\nthing")
    helper.alert_title("Note")
    helper.alert("Hello")
    helper.save_value("token", "abc123")
    helper.remove_value("old")
    helper.output_file("/tmp/out é.txt")
    helper.add_dropbar(["/tmp/one", "/tmp/two"])
    helper.notification_script('display notification "hi"')
    first = helper.select_folder("Pick one")
    second = helper.select_folder("")
    helper.begin_message("first=" + (first or "none"))
    helper.begin_message("second=" + (second or "none"))
    try:
        helper.begin_message("")
    except ValueError:
        helper.begin_message("refused empty")
    try:
        helper.alert(" \t ")
    except ValueError:
        helper.begin_message("refused blank")
)PY"};

// Leaves a marker after each step, so the test can see how far it got.
const Script StepsAction{R"RB(def clicked(variables, helper)
  folder = variables["marker_dir"]
  helper.begin_message("one")
  File.write(File.join(folder, "after-one"), "")
  puts "plain text"
  File.write(File.join(folder, "after-plain"), "")
  helper.begin_message("two")
  File.write(File.join(folder, "after-two"), "")
  chosen = helper.select_folder("Where?")
  File.write(File.join(folder, "chosen"), chosen.to_s)
end
)RB",
                         R"PY(import os


def touch(path, text=""):
    with open(path, "w", encoding="utf-8") as handle:
        handle.write(text)


def clicked(variables, helper):
    folder = variables["marker_dir"]
    helper.begin_message("one")
    touch(os.path.join(folder, "after-one"))
    print("plain text")
    touch(os.path.join(folder, "after-plain"))
    helper.begin_message("two")
    touch(os.path.join(folder, "after-two"))
    chosen = helper.select_folder("Where?")
    touch(os.path.join(folder, "chosen"), chosen or "")
)PY"};

// Output that must not produce one-byte chunks, a result longer than a default pipe, and
// output written by a child process straight to the descriptor.
const Script OutputAction{R"RB(def clicked(variables, helper)
  puts ""
  print "x"
  $stdout.flush
  helper.begin_message("after")
  $stderr.puts "a warning"
  system("/bin/echo", "from a child process")
  folder = helper.select_folder("Pick")
  helper.begin_message("picked #{folder}")
  helper.text("y" * 300_000)
end
)RB",
                          R"PY(import subprocess
import sys


def clicked(variables, helper):
    print("")
    print("x", end="", flush=True)
    helper.begin_message("after")
    print("a warning", file=sys.stderr)
    subprocess.run(["/bin/echo", "from a child process"], check=True)
    folder = helper.select_folder("Pick")
    helper.begin_message(f"picked {folder}")
    helper.text("y" * 300_000)
)PY"};

const Script RaisingAction{R"RB(def dragged(items, variables, helper)
  helper.begin_message("before")
  raise "boom from the action"
end
)RB",
                           R"PY(def dragged(items, variables, helper):
    helper.begin_message("before")
    raise ValueError("boom from the action")
)PY"};

const Script BrokenAction{"def dragged(items, variables, helper)\n  helper.begin_message(\n",
                          "def dragged(items, variables, helper):\n    helper.begin_message(\n"};

const Script ClickOnlyAction{
    "def clicked(variables, helper)\n  helper.begin_message(\"hi\")\nend\n",
    "def clicked(variables, helper):\n    helper.begin_message(\"hi\")\n"};

const Script ExitingAction{"def clicked(variables, helper)\n  helper.begin_message(\"leaving\")\n"
                           "  exit 3\nend\n",
                           "import sys\n\n\ndef clicked(variables, helper):\n"
                           "    helper.begin_message(\"leaving\")\n    sys.exit(3)\n"};

// A program the action starts reads its standard input: it must find the end at once, not
// the acknowledgements.
const Script ChildReadsInputAction{
    "def clicked(variables, helper)\n  helper.begin_message(\"before\")\n"
    "  got = IO.popen([\"cat\"], &:read)\n"
    "  helper.begin_message(\"child read #{got.bytesize} bytes\")\nend\n",
    "import subprocess\n\n\ndef clicked(variables, helper):\n"
    "    helper.begin_message(\"before\")\n"
    "    got = subprocess.run([\"cat\"], stdout=subprocess.PIPE, check=True).stdout\n"
    "    helper.begin_message(f\"child read {len(got)} bytes\")\n"};

class RunnerTest : public testing::TestWithParam<Language> {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid());
        ASSERT_TRUE(QFileInfo::exists(QDir(libFolder()).filePath(QStringLiteral("runner.rb"))));
        if (GetParam() == Language::Python) {
            ASSERT_FALSE(pythonExecutable().isEmpty());
        }
    }

    bool python() const { return GetParam() == Language::Python; }
    QString path(const QString& name) const { return m_dir.filePath(name); }

    // A bundle holding the script in this test's language.
    QString bundle(const Script& script, const QString& name = QStringLiteral("Test"))
    {
        const QString folder = path(name + QStringLiteral(".skbundle"));
        writeFile(folder + (python() ? QStringLiteral("/action.py") : QStringLiteral("/action.rb")),
                  python() ? script.python : script.ruby);
        return folder;
    }

    QString task(const QByteArray& description, const QString& name = QStringLiteral("task-12345"))
    {
        return writeFile(path(name), description);
    }

    RunnerChild::Options options() const
    {
        RunnerChild::Options result;
        if (python()) {
            result.pythonPath = pythonExecutable();
        }
        return result;
    }

    QJsonObject dump() const
    {
        return QJsonDocument::fromJson(readFile(path(QStringLiteral("dump.json")))).object();
    }

    QTemporaryDir m_dir;
};

QVariantMap variablesOf(const QJsonObject& dumped)
{
    return dumped.value(QStringLiteral("variables")).toObject().toVariantMap();
}

QStringList itemsOf(const QJsonObject& dumped)
{
    QStringList result;
    for (const QJsonValue& item : dumped.value(QStringLiteral("items")).toArray()) {
        result << item.toString();
    }
    return result;
}

TEST_P(RunnerTest, FilesDropHandsOverItemsAndVariablesExactly)
{
    const QStringList items{
        QStringLiteral("/tmp/a \"quoted\" name.txt"), QStringLiteral("/tmp/plain"),
        QStringLiteral("/tmp/ends with backslash\\"), QStringLiteral("/tmp/has \" \" inside"),
        QStringLiteral("/tmp/back\\\"slash quote"),   QStringLiteral("/tmp/ünïcödé ✓")};
    const QString dumpFile = path(QStringLiteral("dump.json"));
    const QString tricky = QStringLiteral("first\nVARIABLE: \"fake\" \"x\nITEMS: \"y\"\nlast");
    const std::vector<std::pair<QString, QString>> variables{
        {QStringLiteral("dragged_type"), QStringLiteral("files")},
        {QStringLiteral("dump_file"), dumpFile},
        {QStringLiteral("multi"), QStringLiteral("line one\nline two\n")},
        {QStringLiteral("quotes"), QStringLiteral("say \"hi\" \" there\"")},
        {QStringLiteral("tricky"), tricky},
        {QStringLiteral("empty"), QString()},
        {QStringLiteral("key with spaces"), QStringLiteral("v")},
        {QStringLiteral("path"), escapeQuotes(QStringLiteral("/tmp/dir \"x\""))},
        {QStringLiteral("RENAMED_FILENAME_0"), escapeQuotes(QStringLiteral("new \"name\".txt"))},
        {QStringLiteral("OPERATION"), QStringLiteral("NSDragOperationCopy")},
    };
    const QString taskFile =
        task(taskDescription(bundle(DumpAction), QStringLiteral("dragged"), variables, items));

    const Transcript transcript = runTask(taskFile, options());

    ASSERT_EQ(transcript.exitCode, 0) << transcript.standardError().toStdString();
    EXPECT_EQ(transcript.lines(), QStringList{QStringLiteral("Begin_Message: dumped dragged")});
    const QJsonObject dumped = dump();
    EXPECT_EQ(dumped.value(QStringLiteral("event")).toString(), QStringLiteral("dragged"));
    EXPECT_EQ(itemsOf(dumped), items);
    const QVariantMap expected{
        {QStringLiteral("dragged_type"), QStringLiteral("files")},
        {QStringLiteral("dump_file"), dumpFile},
        {QStringLiteral("multi"), QStringLiteral("line one\nline two\n")},
        {QStringLiteral("quotes"), QStringLiteral("say \"hi\" \" there\"")},
        {QStringLiteral("tricky"), tricky},
        {QStringLiteral("empty"), QString()},
        {QStringLiteral("key with spaces"), QStringLiteral("v")},
        // Skelvo escapes the quotes of these two; the action gets them back as typed.
        {QStringLiteral("path"), QStringLiteral("/tmp/dir \"x\"")},
        {QStringLiteral("RENAMED_FILENAME_0"), QStringLiteral("new \"name\".txt")},
        {QStringLiteral("OPERATION"), QStringLiteral("NSDragOperationCopy")},
    };
    EXPECT_EQ(variablesOf(dumped), expected);
}

TEST_P(RunnerTest, TextDropIsOneRawItem)
{
    const QString text =
        QStringLiteral("He said \"hi\" \"there\"\nVARIABLE: \"not\" \"a variable\"\nends\n");
    const QString taskFile =
        task(taskDescription(bundle(DumpAction), QStringLiteral("dragged"),
                             {{QStringLiteral("dump_file"), path(QStringLiteral("dump.json"))},
                              {QStringLiteral("dragged_type"), QStringLiteral("text")}},
                             {text}));
    ASSERT_TRUE(readFile(taskFile).contains("\"He said \"hi\" \"there\"")); // written raw

    const Transcript transcript = runTask(taskFile, options());

    ASSERT_EQ(transcript.exitCode, 0) << transcript.standardError().toStdString();
    EXPECT_EQ(itemsOf(dump()), QStringList{text});
    EXPECT_EQ(variablesOf(dump()).value(QStringLiteral("dragged_type")), QStringLiteral("text"));
}

TEST_P(RunnerTest, ClickWithoutItemsReadsTheLastLineWithoutLineBreak)
{
    const QString taskFile =
        task(taskDescription(bundle(DumpAction), QStringLiteral("clicked"),
                             {{QStringLiteral("dump_file"), path(QStringLiteral("dump.json"))},
                              {QStringLiteral("last"), QStringLiteral("ends \"quoted\"")}}));
    ASSERT_FALSE(readFile(taskFile).endsWith('\n'));

    const Transcript transcript = runTask(taskFile, options());

    ASSERT_EQ(transcript.exitCode, 0) << transcript.standardError().toStdString();
    const QJsonObject dumped = dump();
    EXPECT_EQ(dumped.value(QStringLiteral("event")).toString(), QStringLiteral("clicked"));
    EXPECT_TRUE(dumped.value(QStringLiteral("items")).isNull());
    EXPECT_EQ(variablesOf(dumped).value(QStringLiteral("last")), QStringLiteral("ends \"quoted\""));
    EXPECT_EQ(transcript.lines(), QStringList{QStringLiteral("Begin_Message: dumped clicked")});
}

TEST_P(RunnerTest, ConnectionTestAndAuthorizationCallTheirHandlers)
{
    const QString action = bundle(DumpAction);
    for (const QString& event : {QStringLiteral("test_connection"), QStringLiteral("authorize")}) {
        const QString taskFile = task(
            taskDescription(action, event,
                            {{QStringLiteral("dump_file"), path(QStringLiteral("dump.json"))}}),
            QStringLiteral("task-") + event);
        const Transcript transcript = runTask(taskFile, options());
        ASSERT_EQ(transcript.exitCode, 0) << transcript.standardError().toStdString();
        EXPECT_EQ(dump().value(QStringLiteral("event")).toString(), event);
        EXPECT_EQ(transcript.lines(),
                  QStringList{QStringLiteral("Begin_Message: dumped ") + event});
    }
}

TEST_P(RunnerTest, EveryHelperMethodWritesItsExactLinesOneChunkEach)
{
    const QString taskFile =
        task(taskDescription(bundle(EveryHelperAction), QStringLiteral("clicked"),
                             {{QStringLiteral("app_version"), QStringLiteral("5.0")}}));

    const Transcript transcript =
        runTask(taskFile, options(), {QByteArrayLiteral("/home/user/Chosen Folder")});

    ASSERT_EQ(transcript.exitCode, 0) << transcript.standardError().toStdString();
    const QString outputFile =
        QString::fromLatin1(QStringLiteral("/tmp/out é.txt").toUtf8().toBase64());
    const QStringList expected{
        QStringLiteral("Begin_Message: Starting[;nsecond line"),
        QStringLiteral("Determinate: 1"),
        QStringLiteral("Determinate: 0"),
        QStringLiteral("Progress: 42"),
        QStringLiteral("Progress: 12.5"),
        QStringLiteral("Progress: 100"),
        QStringLiteral("Finish_Message: All done"),
        QStringLiteral("Fail: It broke"),
        QStringLiteral("URL_Title: Title"),
        QStringLiteral("URL: https://example.org/x"),
        QStringLiteral("Text: some text"),
        QStringLiteral("Error_Title: Oops"),
        QStringLiteral("Error: Bad[;nthing"),
        QStringLiteral("Alert_Title: Note"),
        QStringLiteral("Alert: Hello"),
        QStringLiteral("Save_Value_Name: token"),
        QStringLiteral("Save_Value: abc123"),
        QStringLiteral("Remove_Value_Name: old"),
        QStringLiteral("Output_File: ") + outputFile,
        QStringLiteral("Add_Dropbar: /tmp/one"),
        QStringLiteral("Add_Dropbar: /tmp/two"),
        QStringLiteral("Complete_Add_Dropbar: 1"),
        QStringLiteral("Notification_AppleScript: display notification \"hi\""),
        QStringLiteral("Select_Folder: Pick one"),
        QStringLiteral("Select_Folder: Choose a folder"),
        QStringLiteral("Begin_Message: first=/home/user/Chosen Folder"),
        QStringLiteral("Begin_Message: second=none"),
        QStringLiteral("Begin_Message: refused empty"),
        QStringLiteral("Begin_Message: refused blank"),
    };
    QStringList chunks;
    for (const QByteArray& chunk : transcript.outputChunks()) {
        ASSERT_TRUE(chunk.endsWith('\n')) << chunk.toStdString();
        chunks << QString::fromUtf8(chunk.chopped(1));
    }
    EXPECT_EQ(chunks, expected);
}

TEST_P(RunnerTest, EachLineWaitsForItsAcknowledgement)
{
    const QString markers = path(QStringLiteral("markers"));
    ASSERT_TRUE(QDir().mkpath(markers));
    const QString taskFile = task(taskDescription(bundle(StepsAction), QStringLiteral("clicked"),
                                                  {{QStringLiteral("marker_dir"), markers}}));
    const auto marker = [&](const char* name) {
        return QFileInfo::exists(QDir(markers).filePath(QString::fromLatin1(name)));
    };

    RunnerChild child;
    ASSERT_TRUE(child.start(taskFile, options()));
    Chunk chunk;

    ASSERT_TRUE(child.nextChunk(chunk));
    EXPECT_EQ(chunk.data, QByteArrayLiteral("Begin_Message: one\n"));
    EXPECT_TRUE(child.silentFor(300));
    EXPECT_FALSE(marker("after-one"));
    child.acknowledge();

    // Plain output waits for its acknowledgement just the same.
    ASSERT_TRUE(child.nextChunk(chunk));
    EXPECT_EQ(chunk.data, QByteArrayLiteral("plain text\n"));
    EXPECT_TRUE(marker("after-one"));
    EXPECT_TRUE(child.silentFor(300));
    EXPECT_FALSE(marker("after-plain"));
    child.acknowledge();

    ASSERT_TRUE(child.nextChunk(chunk));
    EXPECT_EQ(chunk.data, QByteArrayLiteral("Begin_Message: two\n"));
    EXPECT_TRUE(marker("after-plain"));
    EXPECT_TRUE(child.silentFor(300));
    EXPECT_FALSE(marker("after-two"));
    child.acknowledge();

    // The folder question takes the answer line, not an acknowledgement.
    ASSERT_TRUE(child.nextChunk(chunk));
    EXPECT_EQ(chunk.data, QByteArrayLiteral("Select_Folder: Where?\n"));
    EXPECT_TRUE(marker("after-two"));
    EXPECT_TRUE(child.silentFor(300));
    EXPECT_FALSE(marker("chosen"));
    child.writeInput(QByteArrayLiteral("/srv/chosen dir\n"));

    EXPECT_EQ(child.waitForExit(), 0) << child.transcript().standardError().toStdString();
    EXPECT_EQ(readFile(QDir(markers).filePath(QStringLiteral("chosen"))),
              QByteArrayLiteral("/srv/chosen dir"));
}

TEST_P(RunnerTest, OutputNeverUpsetsTheAcknowledgements)
{
    const QString taskFile =
        task(taskDescription(bundle(OutputAction), QStringLiteral("clicked"), {}));

    const Transcript transcript = runTask(taskFile, options(), {QByteArrayLiteral("/data/picked")});

    ASSERT_EQ(transcript.exitCode, 0) << transcript.standardError().toStdString();
    const QList<QByteArray> chunks = transcript.outputChunks();
    for (const QByteArray& chunk : chunks) {
        EXPECT_GE(chunk.size(), 2) << "a one-byte chunk is never acknowledged";
    }
    // A lone line break is dropped; a lone byte is sent with a line break. The child
    // process writes without waiting, so its line may share a read with a neighbour, and
    // a result longer than a default pipe may take more than one read.
    EXPECT_EQ(chunks.join(), QByteArrayLiteral("x\nBegin_Message: after\na warning\n"
                                               "from a child process\nSelect_Folder: Pick\n"
                                               // The child's acknowledgement is not taken
                                               // for the folder.
                                               "Begin_Message: picked /data/picked\nText: ") +
                                 QByteArray(300000, 'y') + '\n');
}

TEST_P(RunnerTest, ProgramsTheActionStartsDoNotGetTheAcknowledgements)
{
    const QString taskFile =
        task(taskDescription(bundle(ChildReadsInputAction), QStringLiteral("clicked"), {}));
    RunnerChild child;
    ASSERT_TRUE(child.start(taskFile, options()));

    const Transcript transcript = child.runToEnd({}, 15000);

    EXPECT_EQ(transcript.exitCode, 0) << transcript.standardError().toStdString();
    EXPECT_EQ(transcript.lines(),
              (QStringList{QStringLiteral("Begin_Message: before"),
                           QStringLiteral("Begin_Message: child read 0 bytes")}));
}

TEST_P(RunnerTest, ExceptionGoesToStandardErrorWithBacktraceAndFails)
{
    RunnerChild::Options separate = options();
    separate.separateStandardError = true;
    const QString taskFile = task(taskDescription(
        bundle(RaisingAction), QStringLiteral("dragged"),
        {{QStringLiteral("dragged_type"), QStringLiteral("files")}}, {QStringLiteral("/tmp/x")}));

    const Transcript transcript = runTask(taskFile, separate);

    EXPECT_EQ(transcript.exitCode, 1);
    EXPECT_EQ(transcript.lines(), QStringList{QStringLiteral("Begin_Message: before")});
    const QString error = QString::fromUtf8(transcript.standardError());
    EXPECT_TRUE(error.contains(QStringLiteral("boom from the action"))) << error.toStdString();
    if (python()) {
        EXPECT_TRUE(error.contains(QStringLiteral("Traceback (most recent call last)")));
        EXPECT_TRUE(error.contains(QStringLiteral("ValueError: boom from the action")));
        EXPECT_TRUE(error.contains(QStringLiteral("action.py\", line 3, in dragged")))
            << error.toStdString();
    } else {
        EXPECT_TRUE(error.contains(QStringLiteral("(RuntimeError)")));
        EXPECT_TRUE(error.contains(QStringLiteral("action.rb:3:in `dragged'")))
            << error.toStdString();
        EXPECT_TRUE(error.contains(QStringLiteral("\tfrom "))) << error.toStdString();
    }
}

TEST_P(RunnerTest, ScriptThatDoesNotLoadFails)
{
    const QString taskFile = task(taskDescription(
        bundle(BrokenAction), QStringLiteral("dragged"),
        {{QStringLiteral("dragged_type"), QStringLiteral("files")}}, {QStringLiteral("/tmp/x")}));

    const Transcript transcript = runTask(taskFile, options());

    EXPECT_EQ(transcript.exitCode, 1);
    EXPECT_TRUE(transcript.lines().join('\n').contains(QStringLiteral("SyntaxError")))
        << transcript.lines().join('\n').toStdString();
}

TEST_P(RunnerTest, MissingHandlerIsAnErrorOnStandardError)
{
    RunnerChild::Options separate = options();
    separate.separateStandardError = true;
    const QString taskFile = task(taskDescription(
        bundle(ClickOnlyAction), QStringLiteral("dragged"),
        {{QStringLiteral("dragged_type"), QStringLiteral("files")}}, {QStringLiteral("/tmp/x")}));

    const Transcript transcript = runTask(taskFile, separate);

    EXPECT_EQ(transcript.exitCode, 2);
    EXPECT_TRUE(transcript.outputChunks().isEmpty());
    const QString error = QString::fromUtf8(transcript.standardError());
    EXPECT_TRUE(error.contains(QStringLiteral("has no handler for the event \"dragged\"")))
        << error.toStdString();
    EXPECT_TRUE(error.contains(QStringLiteral("dragged(items, variables, helper)")));
}

TEST_P(RunnerTest, ExitStatusOfTheActionIsKept)
{
    const QString taskFile =
        task(taskDescription(bundle(ExitingAction), QStringLiteral("clicked"), {}));

    const Transcript transcript = runTask(taskFile, options());

    EXPECT_EQ(transcript.exitCode, 3);
    EXPECT_EQ(transcript.lines(), QStringList{QStringLiteral("Begin_Message: leaving")});
}

TEST_P(RunnerTest, UnknownEventIsRefused)
{
    const QString taskFile =
        task(taskDescription(bundle(DumpAction), QStringLiteral("exploded"),
                             {{QStringLiteral("dump_file"), path(QStringLiteral("dump.json"))}}));

    const Transcript transcript = runTask(taskFile, options());

    EXPECT_EQ(transcript.exitCode, 2);
    EXPECT_TRUE(
        transcript.lines().join('\n').contains(QStringLiteral("Unknown event \"exploded\"")));
    EXPECT_FALSE(QFileInfo::exists(path(QStringLiteral("dump.json"))));
}

INSTANTIATE_TEST_SUITE_P(Languages, RunnerTest, testing::Values(Language::Ruby, Language::Python),
                         languageName);

class RunnerSetupTest : public testing::Test {
protected:
    QString path(const QString& name) const { return m_dir.filePath(name); }
    QTemporaryDir m_dir;
};

TEST_F(RunnerSetupTest, PythonRunsWithTheInterpreterInPythonPath)
{
    const QString python = pythonExecutable();
    ASSERT_FALSE(python.isEmpty());
    const QString used = path(QStringLiteral("used"));
    const QString wrapper =
        writeFile(path(QStringLiteral("bin/my-python")),
                  QStringLiteral("#!/bin/sh\necho \"$@\" > '%1'\nexec '%2' \"$@\"\n")
                      .arg(used, python)
                      .toUtf8());
    QFile::setPermissions(wrapper, QFile::permissions(wrapper) | QFileDevice::ExeOwner);
    const QString action =
        writeFile(path(QStringLiteral("P.skbundle/action.py")), DumpAction.python);
    const QString taskFile = writeFile(
        path(QStringLiteral("task-1")),
        taskDescription(QFileInfo(action).absolutePath(), QStringLiteral("clicked"),
                        {{QStringLiteral("dump_file"), path(QStringLiteral("dump.json"))}}));

    RunnerChild::Options options;
    options.pythonPath = wrapper;
    const Transcript transcript = runTask(taskFile, options);

    ASSERT_EQ(transcript.exitCode, 0) << transcript.lines().join('\n').toStdString();
    EXPECT_TRUE(readFile(used).contains("skelvo_runner.py"));
    EXPECT_TRUE(QFileInfo::exists(path(QStringLiteral("dump.json"))));
}

TEST_F(RunnerSetupTest, PythonFallsBackToPython3OnThePath)
{
    const QString action =
        writeFile(path(QStringLiteral("P.skbundle/action.py")), DumpAction.python);
    const QString taskFile = writeFile(
        path(QStringLiteral("task-1")),
        taskDescription(QFileInfo(action).absolutePath(), QStringLiteral("clicked"),
                        {{QStringLiteral("dump_file"), path(QStringLiteral("dump.json"))}}));

    // Without PYTHON_PATH, "python3" is looked up on the PATH.
    const QString bin = path(QStringLiteral("bin"));
    ASSERT_TRUE(QDir().mkpath(bin));
    const QString used = path(QStringLiteral("used"));
    writeFile(bin + QStringLiteral("/python3"),
              QStringLiteral("#!/bin/sh\necho \"$@\" > '%1'\nexec '%2' \"$@\"\n")
                  .arg(used, pythonExecutable())
                  .toUtf8());
    QFile::setPermissions(bin + QStringLiteral("/python3"),
                          QFile::permissions(bin + QStringLiteral("/python3")) |
                              QFileDevice::ExeOwner);
    RunnerChild::Options options;
    options.environment.emplace_back(QStringLiteral("PATH"),
                                     bin + QLatin1Char(':') + qEnvironmentVariable("PATH"));
    const Transcript transcript = runTask(taskFile, options);

    ASSERT_EQ(transcript.exitCode, 0) << transcript.lines().join('\n').toStdString();
    EXPECT_TRUE(readFile(used).contains("skelvo_runner.py"));
    EXPECT_TRUE(QFileInfo::exists(path(QStringLiteral("dump.json"))));
}

TEST_F(RunnerSetupTest, MissingPythonInterpreterIsReported)
{
    const QString action =
        writeFile(path(QStringLiteral("P.skbundle/action.py")), DumpAction.python);
    const QString taskFile = writeFile(
        path(QStringLiteral("task-1")),
        taskDescription(QFileInfo(action).absolutePath(), QStringLiteral("clicked"),
                        {{QStringLiteral("dump_file"), path(QStringLiteral("dump.json"))}}));

    RunnerChild::Options options;
    options.pythonPath = path(QStringLiteral("no/such/python3"));
    const Transcript transcript = runTask(taskFile, options);

    EXPECT_EQ(transcript.exitCode, 2);
    EXPECT_TRUE(transcript.lines().join('\n').contains(
        QStringLiteral("Cannot start the Python interpreter ") + options.pythonPath));
}

TEST_F(RunnerSetupTest, SingleFileActionRunsAsRuby)
{
    const QString action = writeFile(path(QStringLiteral("Single.skelvo")), DumpAction.ruby);
    const QString taskFile = writeFile(
        path(QStringLiteral("task-1")),
        taskDescription(action, QStringLiteral("clicked"),
                        {{QStringLiteral("dump_file"), path(QStringLiteral("dump.json"))}}));

    const Transcript transcript = runTask(taskFile);

    ASSERT_EQ(transcript.exitCode, 0) << transcript.lines().join('\n').toStdString();
    EXPECT_EQ(transcript.lines(), QStringList{QStringLiteral("Begin_Message: dumped clicked")});
}

TEST_F(RunnerSetupTest, UnreadableTaskDescriptionIsReported)
{
    const Transcript transcript = runTask(path(QStringLiteral("task-missing")));

    EXPECT_EQ(transcript.exitCode, 2);
    EXPECT_TRUE(transcript.lines().join('\n').contains(
        QStringLiteral("Cannot read the task description file")));
}

TEST_F(RunnerSetupTest, MissingActionScriptIsReported)
{
    const QString taskFile =
        writeFile(path(QStringLiteral("task-1")),
                  taskDescription(path(QStringLiteral("Gone.skbundle")), QStringLiteral("clicked"),
                                  {{QStringLiteral("a"), QStringLiteral("b")}}));

    const Transcript transcript = runTask(taskFile);

    EXPECT_EQ(transcript.exitCode, 2);
    EXPECT_TRUE(transcript.lines().join('\n').contains(QStringLiteral("No action script at")));
}

TEST_F(RunnerSetupTest, TemplatesRunThroughTheRunner)
{
    for (const char* name : {"Custom Action Ruby Template", "Custom Action Python Template"}) {
        const QString bundle =
            QDir(actionsFolder()).filePath(QString::fromLatin1(name) + QStringLiteral(".skbundle"));
        const QString file = writeFile(path(QStringLiteral("data.txt")), "12345");
        const QString taskFile = writeFile(
            path(QStringLiteral("task-") + QString::fromLatin1(name).split(' ').at(2)),
            taskDescription(bundle, QStringLiteral("dragged"),
                            {{QStringLiteral("dragged_type"), QStringLiteral("files")}}, {file}));
        RunnerChild::Options options;
        options.pythonPath = pythonExecutable();

        const Transcript transcript = runTask(taskFile, options);

        ASSERT_EQ(transcript.exitCode, 0) << transcript.lines().join('\n').toStdString();
        EXPECT_EQ(transcript.lines(),
                  (QStringList{QStringLiteral("Begin_Message: Measuring 1 items"),
                               QStringLiteral("Determinate: 1"), QStringLiteral("Progress: 100"),
                               QStringLiteral("Finish_Message: Received 1 items with 5 bytes in "
                                              "files")}))
            << name;
    }
}

} // namespace
