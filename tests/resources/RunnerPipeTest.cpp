// runner.rb on a pipe that this test answers, for what the application cannot show: when
// each acknowledgement is awaited, the events and task descriptions no sk run produces, and
// the variables only a drop with a modifier or the rename prompt sets.
#include "tests/support/HeadlessApp.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

const QString Actions = QStringLiteral(SKELVO_SOURCE_RESOURCES "/Actions");

// A task description as the application writes it: quotes escaped only in the items of a
// files drop and in the "path" and rename variables; no line break at the end.
QByteArray taskDescription(const QString& action, const QString& event,
                           const QList<std::pair<QString, QString>>& variables,
                           const QStringList& items = {})
{
    QString text = QStringLiteral("ACTION: \"%1\"\nEVENT: \"%2\"").arg(action, event);
    for (auto [key, value] : variables) {
        if (key == u"path" || key.startsWith("RENAMED_FILENAME_")) {
            value.replace(u'"', "\\\"");
        }
        text += QStringLiteral("\nVARIABLE: \"%1\" \"%2\"").arg(key, value);
    }
    if (!items.isEmpty()) {
        text += "\nITEMS:";
        for (const QString& item : items) {
            text += QStringLiteral(" \"%1\"").arg(QString(item).replace(u'"', "\\\""));
        }
    }
    return text.toUtf8();
}

class RunnerPipe {
public:
    explicit RunnerPipe(const QString& taskFile)
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("PYTHON_PATH", "/usr/bin/python3");
        m_child.setProcessEnvironment(environment);
        m_child.setProcessChannelMode(QProcess::MergedChannels);
        m_child.setWorkingDirectory(Actions + "/lib");
        m_child.start("ruby", {"runner.rb", taskFile});
        m_child.waitForStarted(10000);
    }
    // The next chunk the child wrote; empty when none came.
    QByteArray next()
    {
        if (m_child.bytesAvailable() == 0) {
            m_child.waitForReadyRead(20000);
        }
        const QByteArray chunk = m_child.readAllStandardOutput();
        m_output += chunk;
        return chunk;
    }
    bool silentFor(int milliseconds) { return !m_child.waitForReadyRead(milliseconds); }
    void write(const QByteArray& bytes) { m_child.write(bytes); }
    // Acknowledges everything until the child ends; returns its exit status.
    int finish()
    {
        while (m_child.state() == QProcess::Running || m_child.bytesAvailable() > 0) {
            if (next().size() >= 2) {
                write("\n");
            }
        }
        m_child.waitForFinished(20000);
        return m_child.exitCode();
    }
    QByteArray output() const { return m_output; }

private:
    QProcess m_child;
    QByteArray m_output;
};

class RunnerPipeTest : public ::testing::TestWithParam<bool> {
protected:
    QString bundle(const char* ruby, const char* python)
    {
        const QString folder = m_dir.filePath("Test.skbundle");
        QDir().mkpath(folder);
        QFile file(folder + (GetParam() ? "/action.py" : "/action.rb"));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(GetParam() ? python : ruby);
        return folder;
    }
    QString task(const QByteArray& description)
    {
        QFile file(m_dir.filePath(QStringLiteral("task-%1").arg(++m_tasks)));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(description);
        return file.fileName();
    }
    QTemporaryDir m_dir;
    int m_tasks = 0;
};

TEST_P(RunnerPipeTest, EachLineWaitsForItsAcknowledgement)
{
    const QString markers = m_dir.filePath("markers");
    QDir().mkpath(markers);
    const QString action = bundle(R"(def clicked(variables, helper)
  folder = variables["marker_dir"]
  helper.begin_message("one")
  File.write(File.join(folder, "after-one"), "")
  puts "plain text"
  File.write(File.join(folder, "after-plain"), "")
  chosen = helper.select_folder("Where?")
  File.write(File.join(folder, "chosen"), chosen.to_s)
end
)",
                                  R"(import os


def clicked(variables, helper):
    folder = variables["marker_dir"]
    helper.begin_message("one")
    open(os.path.join(folder, "after-one"), "w").close()
    print("plain text")
    open(os.path.join(folder, "after-plain"), "w").close()
    chosen = helper.select_folder("Where?")
    with open(os.path.join(folder, "chosen"), "w") as handle:
        handle.write(chosen or "")
)");
    RunnerPipe child(task(taskDescription(action, "clicked", {{"marker_dir", markers}})));
    const auto marker = [&](const char* name) {
        return QFileInfo::exists(QDir(markers).filePath(QString::fromLatin1(name)));
    };
    struct Step {
        const char* chunk;
        const char* before; // made before the chunk, or ""
        const char* after;  // made only once the chunk is answered
        QByteArray answer;
    };
    for (const Step& step :
         {Step{"Begin_Message: one\n", "", "after-one", "\n"},
          Step{"plain text\n", "after-one", "after-plain", "\n"},
          // The folder question takes the answer line, not an acknowledgement.
          Step{"Select_Folder: Where?\n", "after-plain", "chosen", "/srv/chosen dir\n"}}) {
        EXPECT_EQ(child.next(), step.chunk);
        EXPECT_TRUE(!*step.before || marker(step.before)) << step.before;
        EXPECT_TRUE(child.silentFor(300)) << step.chunk;
        EXPECT_FALSE(marker(step.after)) << step.after;
        child.write(step.answer);
    }
    EXPECT_EQ(child.finish(), 0) << child.output().toStdString();
    QFile chosen(QDir(markers).filePath("chosen"));
    ASSERT_TRUE(chosen.open(QIODevice::ReadOnly));
    EXPECT_EQ(chosen.readAll(), "/srv/chosen dir");
}

TEST_P(RunnerPipeTest, EventsAndProblemsNoRunThroughTheApplicationHas)
{
    const QString action = bundle("def test_connection(variables, helper)\n"
                                  "  helper.begin_message(\"tested\")\nend\n"
                                  "def authorize(variables, helper)\n"
                                  "  helper.begin_message(\"authorized\")\nend\n",
                                  "def test_connection(variables, helper):\n"
                                  "    helper.begin_message(\"tested\")\n\n\n"
                                  "def authorize(variables, helper):\n"
                                  "    helper.begin_message(\"authorized\")\n");
    const QStringList file{m_dir.filePath("x")};
    struct Row {
        QString taskFile;
        int status;
        QString output;
    };
    const Row rows[] = {
        {task(taskDescription(action, "test_connection", {})), 0, "Begin_Message: tested\n"},
        {task(taskDescription(action, "authorize", {})), 0, "Begin_Message: authorized\n"},
        {task(taskDescription(action, "exploded", {})), 2, "Unknown event \"exploded\""},
        {task(taskDescription(action, "dragged", {{"dragged_type", "files"}}, file)), 2,
         "has no handler for the event \"dragged\""},
        {task(taskDescription(m_dir.filePath("Gone.skbundle"), "clicked", {})), 2,
         "No action script at"},
        {m_dir.filePath("task-missing"), 2, "Cannot read the task description file"},
    };
    for (const Row& row : rows) {
        RunnerPipe child(row.taskFile);
        EXPECT_EQ(child.finish(), row.status) << row.output;
        EXPECT_TRUE(QString::fromUtf8(child.output()).contains(row.output))
            << row.output << " in " << child.output().toStdString();
    }
}

INSTANTIATE_TEST_SUITE_P(Languages, RunnerPipeTest, ::testing::Values(false, true),
                         [](const auto& param) { return param.param ? "Python" : "Ruby"; });

TEST(FileActionsPipe, CopyModifierAndRenamedNames)
{
    QTemporaryDir dir;
    const QDir source(dir.filePath("source"));
    const QDir destination(dir.filePath("dest"));
    QDir().mkpath(destination.path());
    for (const char* name : {"a.txt", "b.txt", "c.txt", "d", "keep.txt", "draft.txt"}) {
        QDir().mkpath(source.path());
        QFile file(source.filePath(QString::fromLatin1(name)));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(name);
    }
    QFile(destination.filePath("taken.txt")).open(QIODevice::WriteOnly);
    // Names apart by blanks, variables as KEY=VALUE|..., "%1" in the output for the folder.
    struct Row {
        const char* type;
        QString names;
        QString folder;
        QString variables;
        QString output;
    };
    const QString dest = destination.path();
    const Row rows[] = {
        // Dropped with the copy modifier, the moving actions copy.
        {"Move Files", "keep.txt", dest, "OPERATION=NSDragOperationCopy",
         "Finish_Message: Copied keep.txt to dest"},
        // Names count the items from 0; "c.txt" keeps its own.
        {"Rename & Copy Files", "a.txt b.txt c.txt d", dest,
         "RENAMED_FILENAME_0=first name.txt|RENAMED_FILENAME_1=say \"b\".txt|"
         "RENAMED_FILENAME_3=taken.txt",
         "Begin_Message: Copying a.txt as first name.txt (1 of 4)"},
        {"Rename & Move Files", "a.txt b.txt", dest,
         "RENAMED_FILENAME_0=fine.txt|RENAMED_FILENAME_1=sub/dir.txt",
         "Fail: \"sub/dir.txt\" cannot be used as a name"},
        {"Rename & Move Files", "a.txt", dest, "RENAMED_FILENAME_0=..",
         "Fail: \"..\" cannot be used as a name"},
        {"Rename & Move Files", "draft.txt", source.path(), "RENAMED_FILENAME_0=final.txt",
         "Finish_Message: Moved draft.txt as final.txt to source"},
        // The application refuses such tiles; the action checks again.
        {"Copy Files", "a.txt", dir.filePath("gone"), "",
         "Fail: The destination folder %1 does not exist"},
        {"Move Files", "a.txt", source.filePath("a.txt"), "",
         "Fail: The destination %1 is not a folder"},
        {"Copy Files", "a.txt", "relative/folder", "",
         "Fail: The destination %1 is not an absolute path"},
        {"Move Files", "a.txt", QString(), "", "Fail: No destination folder is set for Move Files"},
        {"Copy Files", "", dest, "dragged_type=text",
         "Fail: Copy Files takes files and folders, not text"},
    };
    int index = 0;
    for (const Row& row : rows) {
        QList<std::pair<QString, QString>> variables;
        QStringList items;
        for (const QString& name : row.names.split(u' ', Qt::SkipEmptyParts)) {
            items << source.filePath(name);
        }
        if (!items.isEmpty()) {
            variables.emplace_back("dragged_type", "files");
        }
        if (!row.folder.isNull()) {
            variables.emplace_back("path", row.folder);
        }
        for (const QString& pair : row.variables.split(u'|', Qt::SkipEmptyParts)) {
            variables.emplace_back(pair.section(u'=', 0, 0), pair.section(u'=', 1));
        }
        const QString taskFile = dir.filePath(QStringLiteral("task-%1").arg(++index));
        QFile file(taskFile);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(taskDescription(Actions + QStringLiteral("/%1.skbundle").arg(row.type),
                                   "dragged", variables,
                                   items.isEmpty() ? QStringList{"some text"} : items));
        file.close();
        RunnerPipe child(taskFile);
        EXPECT_EQ(child.finish(), 0);
        const QString output =
            (row.output.contains("%1") ? row.output.arg(row.folder) : row.output) + u'\n';
        EXPECT_TRUE(QString::fromUtf8(child.output()).contains(output))
            << output << " in " << child.output().toStdString();
    }
    EXPECT_EQ(destination.entryList(QDir::Files, QDir::Name),
              (QStringList{"c.txt", "first name.txt", "keep.txt", "say \"b\".txt", "taken 2.txt",
                           "taken.txt"}));
    EXPECT_EQ(source.entryList(QDir::Files, QDir::Name),
              (QStringList{"a.txt", "b.txt", "c.txt", "d", "final.txt", "keep.txt"}));
}

} // namespace
