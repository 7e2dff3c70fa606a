#include "actions/ActionFileJson.h"
#include "actions/DevelopActionController.h"
#include "core/SupportPaths.h"
#include "tests/support/TestHome.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSet>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <ostream>

namespace {

struct Template {
    const char* name;
    const char* scriptName;
    const char* interpreter;
    bool python;
    // The blank lines that only separate comment blocks: the rewrite drops these when
    // comments are off, so the template must have its separators exactly there.
    QList<qsizetype> separatorLines;
};

const Template Ruby{"Custom Action Ruby Template", "action.rb", "ruby", false, {16, 22, 33}};
const Template Python{"Custom Action Python Template", "action.py", "python3", true, {16, 22, 35}};

// Names the template in test output instead of dumping its bytes.
void PrintTo(const Template& t, std::ostream* os)
{
    *os << t.name;
}

QString bundlePath(const Template& t)
{
    return QDir(SupportPaths::internalActionsDirectory())
        .filePath(QString::fromLatin1(t.name) + QStringLiteral(".skbundle"));
}

QString scriptPath(const Template& t)
{
    return QDir(bundlePath(t)).filePath(QString::fromLatin1(t.scriptName));
}

QString readText(const QString& path)
{
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << path.toStdString();
    return QString::fromUtf8(file.readAll());
}

QString writeFile(const QString& path, const QByteArray& contents)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly)) << path.toStdString();
    file.write(contents);
    return path;
}

struct ProcessResult {
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};

ProcessResult runProcess(const QString& program, const QStringList& arguments,
                         const QString& workingDirectory = {})
{
    QProcess process;
    if (!workingDirectory.isEmpty()) {
        process.setWorkingDirectory(workingDirectory);
    }
    process.start(program, arguments);
    EXPECT_TRUE(process.waitForStarted(10000)) << program.toStdString();
    EXPECT_TRUE(process.waitForFinished(30000)) << program.toStdString();
    EXPECT_EQ(process.exitStatus(), QProcess::NormalExit) << program.toStdString();
    return {process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError()};
}

// Compiles the script without running it; returns the interpreter's complaint, if any.
QString syntaxProblems(const Template& t, const QString& path)
{
    const QStringList arguments =
        t.python ? QStringList{QStringLiteral("-m"), QStringLiteral("py_compile"), path}
                 : QStringList{QStringLiteral("-c"), path};
    const ProcessResult result = runProcess(QString::fromLatin1(t.interpreter), arguments);
    return result.exitCode == 0 ? QString() : QString::fromUtf8(result.err + result.out);
}

QSet<QString> toSet(const QJsonArray& array)
{
    QSet<QString> set;
    for (const QJsonValue& value : array) {
        set.insert(value.toString());
    }
    return set;
}

class TemplateTest : public ::testing::TestWithParam<Template> {
protected:
    TestHome home;
};

TEST_P(TemplateTest, InspectsAsAValidActionThatHandlesFilesAndText)
{
    const Template& t = GetParam();
    const QJsonObject report = ActionFileJson::inspect(bundlePath(t));
    ASSERT_FALSE(report.contains(QStringLiteral("error")))
        << report[QStringLiteral("error")].toString().toStdString();
    EXPECT_TRUE(report[QStringLiteral("valid")].toBool())
        << report[QStringLiteral("validationText")].toString().toStdString();
    const QJsonObject action = report[QStringLiteral("action")].toObject();
    EXPECT_EQ(action[QStringLiteral("actionName")].toString(), QString::fromLatin1(t.name));
    EXPECT_EQ(toSet(action[QStringLiteral("handles")].toArray()),
              (QSet<QString>{DragTypes::Files, DragTypes::Text}));
    EXPECT_EQ(action[QStringLiteral("events")].toArray(),
              (QJsonArray{QStringLiteral("Clicked"), QStringLiteral("Dragged")}));
    EXPECT_EQ(action[QStringLiteral("isPythonAction")].toBool(), t.python);
    // The shipped icon must load, or the generic image would be shown instead.
    EXPECT_EQ(action[QStringLiteral("iconPath")].toString(),
              QDir(bundlePath(t)).filePath(QStringLiteral("icon.png")));
}

TEST_P(TemplateTest, HeaderEndsAtTheBlankLineAfterTheTwelveHeaderLines)
{
    const QStringList lines = readText(scriptPath(GetParam())).split(u'\n');
    ASSERT_GT(lines.size(), 40);
    EXPECT_EQ(lines.at(0), QStringLiteral("# Skelvo Action Info"));
    for (qsizetype i = 1; i < 11; ++i) {
        EXPECT_TRUE(lines.at(i).startsWith(QStringLiteral("# "))) << i;
        EXPECT_TRUE(lines.at(i).contains(QStringLiteral(": "))) << i;
    }
    EXPECT_TRUE(lines.at(11).isEmpty());
    // The separators sit where the rewrite without comments drops them.
    for (const qsizetype index : GetParam().separatorLines) {
        ASSERT_LT(index, lines.size());
        EXPECT_TRUE(lines.at(index).isEmpty()) << index;
        EXPECT_TRUE(lines.at(index - 1).startsWith(QStringLiteral("# "))) << index;
    }
}

DevelopActionRequest newActionRequest(const Template& t)
{
    DevelopActionRequest request;
    request.name = QStringLiteral("Word Counter");
    request.description = QStringLiteral("Counts words");
    request.creator = QStringLiteral("Tester");
    request.url = QStringLiteral("https://example.org");
    request.handlesFiles = true;
    request.handlesText = true;
    request.language =
        t.python ? DevelopActionRequest::Language::Python : DevelopActionRequest::Language::Ruby;
    return request;
}

// Rewrites a copy of the template the way the develop sheet does and returns the result.
QString rewriteCopy(const Template& t, const QString& header, bool disableComments,
                    const QTemporaryDir& dir)
{
    const QString copy = QDir(dir.path()).filePath(QString::fromLatin1(t.scriptName));
    QFile::remove(copy);
    EXPECT_TRUE(QFile::copy(scriptPath(t), copy));
    QFile::setPermissions(copy, QFile::ReadOwner | QFile::WriteOwner);
    EXPECT_TRUE(DevelopActionController::rewriteMetaData(header, copy, disableComments));
    return readText(copy);
}

TEST_P(TemplateTest, WithoutCommentsTheRewriteLeavesCleanCode)
{
    const Template& t = GetParam();
    QTemporaryDir dir;
    const QString header = DevelopActionController::headerText(newActionRequest(t));
    const QString result = rewriteCopy(t, header, true, dir);
    ASSERT_TRUE(result.startsWith(header));

    const QStringList body = result.mid(header.size()).split(u'\n');
    ASSERT_GE(body.size(), 3);
    EXPECT_TRUE(body.at(0).isEmpty()) << "one blank line after the header";
    int codeLines = 0;
    for (qsizetype i = 0; i < body.size(); ++i) {
        const QString trimmed = body.at(i).trimmed();
        EXPECT_FALSE(trimmed.startsWith(QStringLiteral("#"))) << body.at(i).toStdString();
        if (trimmed.isEmpty()) {
            // The file's final newline leaves one empty piece at the very end.
            if (i + 1 < body.size()) {
                EXPECT_FALSE(body.at(i + 1).trimmed().isEmpty())
                    << "two blank lines at body line " << i;
            }
        } else {
            ++codeLines;
        }
    }
    EXPECT_GE(codeLines, 10);
    EXPECT_TRUE(result.endsWith(u'\n'));
    EXPECT_FALSE(result.endsWith(QStringLiteral("\n\n")));
    EXPECT_EQ(syntaxProblems(t, QDir(dir.path()).filePath(QString::fromLatin1(t.scriptName))),
              QString());

    // The new header is what the parser reads back.
    const QString bundle = QDir(dir.path()).filePath(QStringLiteral("Word Counter.skbundle"));
    writeFile(QDir(bundle).filePath(QString::fromLatin1(t.scriptName)), result.toUtf8());
    const QJsonObject report = ActionFileJson::inspect(bundle);
    EXPECT_TRUE(report[QStringLiteral("valid")].toBool());
    EXPECT_EQ(report[QStringLiteral("action")].toObject()[QStringLiteral("actionName")].toString(),
              QStringLiteral("Word Counter"));
}

TEST_P(TemplateTest, WithCommentsTheRewriteKeepsEveryLineAfterTheHeader)
{
    const Template& t = GetParam();
    QTemporaryDir dir;
    const QString header = DevelopActionController::headerText(newActionRequest(t));
    const QString result = rewriteCopy(t, header, false, dir);

    const QStringList original = readText(scriptPath(t)).split(u'\n');
    EXPECT_EQ(result, header + original.mid(11).join(u'\n'));
    EXPECT_EQ(syntaxProblems(t, QDir(dir.path()).filePath(QString::fromLatin1(t.scriptName))),
              QString());
}

INSTANTIATE_TEST_SUITE_P(Templates, TemplateTest, ::testing::Values(Ruby, Python),
                         [](const ::testing::TestParamInfo<Template>& paramInfo) {
                             return paramInfo.param.python ? "Python" : "Ruby";
                         });

// --- inspect() on other actions ---

const QByteArray BrokenScript = "# Skelvo Action Info\n"
                                "# Name: Broken\n"
                                "# Handles: files\n"
                                "# Events: Dragged\n"
                                "\n"
                                "puts 1\n";

TEST(InspectAction, ReportsEachValidationProblem)
{
    TestHome home;
    const QString path = home.writeFile(QStringLiteral("Broken.skelvo"), BrokenScript);
    const QJsonObject report = ActionFileJson::inspect(path);
    EXPECT_FALSE(report.contains(QStringLiteral("error")));
    EXPECT_FALSE(report[QStringLiteral("valid")].toBool());
    EXPECT_EQ(
        report[QStringLiteral("validationErrors")].toArray(),
        (QJsonArray{QStringLiteral("Description field is missing"),
                    QStringLiteral("Handles field is missing and action responds to drag events"),
                    QStringLiteral("Creator field is missing"),
                    QStringLiteral("URL field is missing")}));
    const QJsonObject action = report[QStringLiteral("action")].toObject();
    EXPECT_EQ(action[QStringLiteral("actionName")].toString(), QStringLiteral("Broken"));
    EXPECT_EQ(action[QStringLiteral("handles")].toArray(), QJsonArray{DragTypes::None});
    EXPECT_TRUE(action[QStringLiteral("metaValidationFailed")].toBool());
    EXPECT_EQ(action[QStringLiteral("metaValidationErrors")].toString(),
              report[QStringLiteral("validationText")].toString());
    EXPECT_FALSE(action[QStringLiteral("isBundle")].toBool());
    EXPECT_EQ(action[QStringLiteral("scriptPath")].toString(), path);
}

TEST(InspectAction, CrlfFileHasNoHeader)
{
    TestHome home;
    const QString path = home.writeFile(QStringLiteral("Dos.skelvo"),
                                        "# Skelvo Action Info\r\n# Name: Dos\r\n\r\nputs 1\r\n");
    const QJsonObject report = ActionFileJson::inspect(path);
    EXPECT_FALSE(report[QStringLiteral("valid")].toBool());
    EXPECT_EQ(report[QStringLiteral("validationErrors")].toArray(),
              QJsonArray{QStringLiteral("Section beginning with # Skelvo Action Info not found")});
    EXPECT_TRUE(
        report[QStringLiteral("action")].toObject()[QStringLiteral("metaDataNotFound")].toBool());
}

TEST(InspectAction, NotAnActionIsAnError)
{
    TestHome home;
    const QString plain = home.writeFile(QStringLiteral("notes.txt"), "# Skelvo Action Info\n");
    for (const QString& path :
         {plain, home.path(), QDir(home.path()).filePath(QStringLiteral("missing.skelvo")),
          home.writeFile(QStringLiteral(".hidden.skelvo"), BrokenScript)}) {
        const QJsonObject report = ActionFileJson::inspect(path);
        EXPECT_FALSE(report[QStringLiteral("valid")].toBool());
        EXPECT_FALSE(report.contains(QStringLiteral("action")));
        EXPECT_EQ(report[QStringLiteral("error")].toString(),
                  QStringLiteral("No action bundle (.skbundle folder) or single-file action "
                                 "(.skelvo file) at %1")
                      .arg(path))
            << path.toStdString();
    }
}

TEST(InspectAction, BundleWithoutScriptIsAReadError)
{
    TestHome home;
    const QString bundle = QDir(home.path()).filePath(QStringLiteral("Empty.skbundle"));
    QDir().mkpath(bundle);
    LogCapture log;
    const QJsonObject report = ActionFileJson::inspect(bundle);
    EXPECT_FALSE(report[QStringLiteral("valid")].toBool());
    const QString error = report[QStringLiteral("error")].toString();
    EXPECT_TRUE(error.startsWith(QStringLiteral("Could not read the action script at %1")
                                     .arg(QDir(bundle).filePath(QStringLiteral("action.rb")))))
        << error.toStdString();
    EXPECT_TRUE(log.contains(QStringLiteral("Error reading file at")));
}

TEST(InspectAction, TrailingSlashAndRelativePiecesAreCleaned)
{
    TestHome home;
    const QString bundle = QDir(home.path()).filePath(QStringLiteral("Tool.skbundle"));
    writeFile(QDir(bundle).filePath(QStringLiteral("action.rb")), BrokenScript);
    const QJsonObject report =
        ActionFileJson::inspect(home.path() + QStringLiteral("/./Tool.skbundle/"));
    EXPECT_EQ(report[QStringLiteral("path")].toString(), bundle);
    EXPECT_TRUE(report[QStringLiteral("action")].toObject()[QStringLiteral("isBundle")].toBool());
}

TEST(InspectAction, ActionInTheUserFolderIsAUserScript)
{
    TestHome home;
    const QString bundle =
        QDir(SupportPaths::userActionsDirectory()).filePath(QStringLiteral("Mine.skbundle"));
    writeFile(QDir(bundle).filePath(QStringLiteral("action.py")), BrokenScript);
    const QJsonObject action = ActionFileJson::inspect(bundle)[QStringLiteral("action")].toObject();
    EXPECT_TRUE(action[QStringLiteral("isUserScript")].toBool());
    EXPECT_TRUE(action[QStringLiteral("isPythonAction")].toBool());
    // No icon in the bundle: the generic image.
    EXPECT_EQ(
        action[QStringLiteral("iconPath")].toString(),
        QDir(SupportPaths::resourcesDirectory()).filePath(QStringLiteral("Images/bundle.png")));
    EXPECT_TRUE(QFileInfo::exists(action[QStringLiteral("iconPath")].toString()));
}

// --- the sk tool, end to end ---

QString sk()
{
    return QStringLiteral(SK_BINARY);
}

QJsonObject parseObject(const QByteArray& json)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(json, &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError) << json.toStdString();
    return document.object();
}

TEST(SkTool, InspectsATemplateWithARelativePath)
{
    TestHome home;
    const ProcessResult result = runProcess(
        sk(),
        {QStringLiteral("inspect-action"), QStringLiteral("Custom Action Ruby Template.skbundle/")},
        SupportPaths::internalActionsDirectory());
    EXPECT_EQ(result.exitCode, 0) << result.err.toStdString();
    EXPECT_TRUE(result.out.contains("\n    \"action\": {")) << "indented by default";
    const QJsonObject report = parseObject(result.out);
    EXPECT_TRUE(report[QStringLiteral("valid")].toBool());
    // sk resolves the relative path against the working folder as the kernel reports it.
    EXPECT_EQ(QFileInfo(report[QStringLiteral("path")].toString()).canonicalFilePath(),
              QFileInfo(bundlePath(Ruby)).canonicalFilePath());
    EXPECT_EQ(report[QStringLiteral("action")].toObject()[QStringLiteral("actionName")].toString(),
              QStringLiteral("Custom Action Ruby Template"));
}

TEST(SkTool, CompactOutputIsOneLine)
{
    TestHome home;
    const ProcessResult result = runProcess(
        sk(), {QStringLiteral("inspect-action"), QStringLiteral("--compact"), bundlePath(Python)});
    EXPECT_EQ(result.exitCode, 0) << result.err.toStdString();
    EXPECT_EQ(result.out.count('\n'), 1);
    EXPECT_TRUE(result.out.endsWith('\n'));
    const QJsonObject action = parseObject(result.out)[QStringLiteral("action")].toObject();
    EXPECT_TRUE(action[QStringLiteral("isPythonAction")].toBool());
}

TEST(SkTool, InvalidActionExitsWithOneAndNoActionWithTwo)
{
    TestHome home;
    for (const auto& [name, status] : {std::pair{"Broken.skelvo", 1}, {"notes.txt", 2}}) {
        const QString path = home.writeFile(QString::fromLatin1(name), BrokenScript);
        const ProcessResult result = runProcess(sk(), {QStringLiteral("inspect-action"), path});
        EXPECT_EQ(result.exitCode, status) << name;
        const QJsonObject report = parseObject(result.out);
        EXPECT_FALSE(report[QStringLiteral("valid")].toBool());
        EXPECT_EQ(report.contains(QStringLiteral("error")), status == 2) << name;
    }
}

TEST(SkTool, UsageErrorsExitWithTwo)
{
    const QList<QStringList> wrong{
        {},
        {QStringLiteral("frobnicate")},
        {QStringLiteral("--frobnicate")},
        {QStringLiteral("inspect-action")},
        {QStringLiteral("inspect-action"), QStringLiteral("a"), QStringLiteral("b")},
        {QStringLiteral("inspect-action"), QStringLiteral("--pretty"), QStringLiteral("a")},
        {QStringLiteral("help"), QStringLiteral("frobnicate")}};
    for (const QStringList& arguments : wrong) {
        const ProcessResult result = runProcess(sk(), arguments);
        EXPECT_EQ(result.exitCode, 2) << arguments.join(u' ').toStdString();
        EXPECT_TRUE(result.out.isEmpty()) << arguments.join(u' ').toStdString();
        EXPECT_FALSE(result.err.isEmpty()) << arguments.join(u' ').toStdString();
    }
    const ProcessResult unknown = runProcess(sk(), {QStringLiteral("frobnicate")});
    EXPECT_TRUE(unknown.err.contains("unknown command 'frobnicate'")) << unknown.err.toStdString();
}

} // namespace
