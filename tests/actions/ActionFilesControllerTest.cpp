#include "actions/ActionFilesController.h"

#include "actions/ActionFileParser.h"
#include "core/FileOperations.h"
#include "core/NotificationCenter.h"
#include "tests/support/EventLoop.h"
#include "tests/support/FakePresenters.h"
#include "tests/support/TestHome.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QProcess>

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

QByteArray script(const QString& name, const QString& extra = {})
{
    return QStringLiteral("# Skelvo Action Info\n# Name: %1\n# Description: d\n# Handles: Files\n"
                          "%2# Creator: c\n# URL: u\n\nputs 1\n")
        .arg(name, extra)
        .toUtf8();
}

QByteArray readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<unreadable>");
}

int mode(const QString& path)
{
    struct stat info {};
    return ::stat(QFile::encodeName(path).constData(), &info) == 0 ? int(info.st_mode & 07777) : -1;
}

// Every file and folder under `folder` with its contents, to compare a whole tree.
QMap<QString, QByteArray> tree(const QString& folder)
{
    QMap<QString, QByteArray> files;
    QDirIterator it(folder, QDir::Files | QDir::Hidden | QDir::Dirs | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        files.insert(QDir(folder).relativeFilePath(path),
                     QFileInfo(path).isDir() ? QByteArray("<dir>") : readAll(path));
    }
    return files;
}

class InstallTest : public ::testing::Test {
protected:
    InstallTest()
    {
        ensureCoreApplication();
        qputenv("TMPDIR", QFile::encodeName(path("tmp")));
        QDir().mkpath(path("tmp"));
        controller.setApplicationVersion("5.0");
        parser.setPresenters(&alerts, &windows);
        controller.setAddToGrid([this](const ActionFilePtr& r) { addedToGrid << r->actionName; });
        center.addObserver({}, nullptr, [this](const Notification& n) { posted << n.name; });
    }
    ~InstallTest() override { m_hadTmp ? qputenv("TMPDIR", m_previousTmp) : qunsetenv("TMPDIR"); }

    QString path(const QString& relative) const { return QDir(home.path()).filePath(relative); }
    QString user() const { return path("user"); }
    // Writes src/<file> (a bundle folder when it ends in .skbundle) and, given `zipAs`, zips
    // `entries` of src (default: that file) into archives/<zipAs>; returns what to install.
    QString source(const QString& file, const QByteArray& text, const QString& zipAs = {},
                   QStringList entries = {})
    {
        const bool bundle = file.endsWith(".skbundle");
        const QString written = home.writeFile("src/" + file + (bundle ? "/action.rb" : ""), text);
        if (zipAs.isEmpty()) {
            return bundle ? QFileInfo(written).path() : written;
        }
        QDir().mkpath(path("archives"));
        QProcess zip;
        zip.setWorkingDirectory(path("src"));
        zip.start("zip", QStringList{"-qry", path("archives/" + zipAs)} +
                             (entries.isEmpty() ? QStringList{file} : entries));
        EXPECT_TRUE(zip.waitForFinished() && zip.exitCode() == 0);
        return path("archives/" + zipAs);
    }
    InstallResult install(const QString& file, bool headless = false, const QString& header = {},
                          const QString& newName = {})
    {
        std::optional<InstallResult> result;
        controller.addActionBundleOrScriptWithPath(file, true, header, newName, headless,
                                                   [&](const InstallResult& r) { result = r; });
        EXPECT_TRUE(waitUntil([&] { return result.has_value(); }));
        EXPECT_FALSE(controller.isAlreadyInstallingAction() || parser.skipDuplicatesCheck());
        EXPECT_TRUE(QDir(path("tmp")).isEmpty()) << "unpacked files left behind";
        return result.value_or(InstallResult{});
    }
    QStringList titles() const
    {
        QStringList out;
        for (const Alert& alert : presenter->alerts) {
            EXPECT_EQ(alert.origin, &controller) << alert.title;
            out << alert.title;
        }
        return out;
    }

    TestHome home;
    bool m_hadTmp = qEnvironmentVariableIsSet("TMPDIR");
    QByteArray m_previousTmp = qgetenv("TMPDIR");
    std::shared_ptr<FakeAlertPresenter> presenter = std::make_shared<FakeAlertPresenter>();
    AlertHelper alerts{presenter};
    FakeWindowPresenter windows;
    NotificationCenter center;
    ActionFileParser parser{path("internal"), user()};
    ActionFilesController controller{parser, alerts, windows, center};
    QStringList posted;
    QStringList addedToGrid;
};

// Each form installs under the action's name; a refusal shows why and installs nothing.
TEST_F(InstallTest, InstallsEachFormOrRefuses)
{
    const struct {
        QString file;
        QByteArray text;
        QString zipAs;
        QString installedAs; // a folder or file keeps its name, an archive takes the action's
                             // name; empty: refused
        QString title = {};
        QString message = {};
    } rows[] = {
        {"Src.skbundle", script("Named"), {}, "Src.skbundle"},
        {"Src.skelvo", script("Named"), {}, "Src.skelvo"},
        {"Src.skbundle", script("Named", "# MinSkelvoVersion: 5.0.1\n"), {}, "Src.skbundle"},
        {"Src.skbundle", script("Named"), "Pack.zip", "Named.skbundle"},
        {"Src.skbundle",
         "# Skelvo Action Info\n# Name: Bad\n# Description: d\n# Handles: Files\n",
         {},
         {},
         "Invalid Action Meta Data",
         "The action script you are trying to add contains invalid or missing meta data. The "
         "following problems were found:\n\n-Creator field is missing\n-URL field is missing\n"},
        {"Src.skbundle",
         script("New", "# MinSkelvoVersion: 5.1\n"),
         {},
         {},
         "New action requires a newer version of Skelvo",
         "This action requires a minimum of Skelvo version 5.1. You currently have version "
         "5.0.\n\nYou can update to the latest version from the Updates tab in the Settings."},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text.toStdString());
        QDir(path("src")).removeRecursively();
        QDir(user()).removeRecursively();
        presenter->alerts.clear();
        posted.clear();
        windows.progressMessages.clear();
        const InstallResult result = install(source(row.file, row.text, row.zipAs));
        EXPECT_EQ(windows.progressMessages,
                  row.zipAs.isEmpty() ? QStringList{} : QStringList{"Installing Pack..."});
        EXPECT_FALSE(windows.progressVisible);
        if (row.installedAs.isEmpty()) {
            EXPECT_FALSE(result.ok);
            EXPECT_EQ(titles(), QStringList{row.title});
            EXPECT_EQ(presenter->alerts.value(0).message, row.message);
            EXPECT_EQ(windows.settingsPages,
                      row.text.contains("5.1") ? QStringList{"Updates"} : QStringList{});
            windows.settingsPages.clear();
            EXPECT_EQ(tree(user()), (QMap<QString, QByteArray>{}));
            continue;
        }
        ASSERT_TRUE(result.ok && result.action) << result.message;
        EXPECT_EQ(result.message, "Named Sucessfully Installed");
        EXPECT_EQ(result.action->taskPath, user() + "/" + row.installedAs);
        EXPECT_EQ(readAll(result.action->scriptPath()), row.text);
        EXPECT_EQ(mode(result.action->scriptPath()), 0777);
        EXPECT_EQ(posted,
                  QStringList({"SKReloadUserActionsTable", "SKActionSingleInstallCompleted"}));
        EXPECT_EQ(titles(), QStringList{"Named Sucessfully Installed"});
        EXPECT_EQ(presenter->alerts.value(0).buttons, QStringList({"Add to Grid", "OK"}));
        EXPECT_EQ(addedToGrid.takeLast(), "Named");
    }
}

TEST_F(InstallTest, ReplacesAnInstalledActionWithoutDuplicateAlert)
{
    home.writeFile("src/Old.skbundle/stale.txt", "old");
    ASSERT_TRUE(install(source("Old.skbundle", script("Same", "# Version: 1\n"), "Old.zip")).ok);
    const InstallResult result =
        install(source("New.skbundle", script("Same", "# Version: 2\n"), "New.zip"));
    ASSERT_TRUE(result.ok) << result.message;
    EXPECT_EQ(result.action->version, "2");
    EXPECT_EQ(tree(user()).keys(), QStringList({"Same.skbundle", "Same.skbundle/action.rb"}));
    // Opening the installed copy installs it onto itself.
    EXPECT_TRUE(install(path("user/Same.skbundle")).ok);
    EXPECT_EQ(parser.getActionWithType("Same")->version, "2");
    EXPECT_EQ(titles().filter("Duplicate"), QStringList{});
}

TEST_F(InstallTest, ListsEndWithOneAlert)
{
    const struct {
        QStringList files;
        int answer;
        QString title = {};
        QStringList added;
    } rows[] = {
        {{"A.skbundle", "b.skelvo", "c.txt"}, 0, "New Actions Installed", {}},
        {{"b.skelvo", "c.txt"}, 1, "b Sucessfully Installed", {}}, // "OK": not added
        {{"c.txt"}, 0, "", {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.title.toStdString());
        QStringList files;
        for (const QString& file : row.files) {
            files << source(file, script(QFileInfo(file).completeBaseName()));
        }
        presenter->alerts.clear();
        presenter->setNextAnswer(row.answer);
        controller.addActionBundlesOrScripts(files);
        EXPECT_TRUE(waitUntil([&] {
            return !controller.isAlreadyInstallingAction() &&
                   (row.title.isEmpty() || !presenter->alerts.isEmpty());
        }));
        EXPECT_EQ(titles(), row.title.isEmpty() ? QStringList{} : QStringList{row.title});
        EXPECT_EQ(addedToGrid, row.added);
    }
    EXPECT_EQ(tree(user()).keys().filter("c.txt"), QStringList{});
}

TEST_F(InstallTest, FailedArchivesAndCopiesLeaveTheInstalledCopyUntouched)
{
    home.writeFile("src/Keep.skbundle/data.bin", QByteArray(5000, 'k'));
    ASSERT_TRUE(install(source("Keep.skbundle", script("Keep"))).ok);
    const auto before = tree(user());
    QDir(path("src")).removeRecursively();

    source("Other.skbundle", script("Other"));
    source("Esc.skbundle", script("../../Evil"));
    const QByteArray good =
        readAll(source("Keep.skbundle", script("Keep", "# Version: 2\n"), "good.zip"));
    const QByteArray two = readAll(source("Keep.skbundle", script("Keep", "# Version: 2\n"),
                                          "two.zip", {"Keep.skbundle", "Other.skbundle"}));
    const QByteArray escaping = readAll(source("Esc.skbundle", script("../../Evil"), "esc.zip"));
    const QByteArray empty = readAll(source("Keep.skbundle", {}, "empty.zip"));
    const struct {
        const char* name;
        QByteArray archive;
        const char* detail;
    } rows[] = {
        {"garbage", QByteArray(4096, '\x5a'), ""},
        {"truncated", good.left(good.size() / 2), ""},
        {"two bundles", two, "exactly one action bundle"},
        {"no header", empty, "not found"},
        {"escaping name", escaping, "cannot be used as the name"},
        {"a named pipe, which cannot be copied however often it is tried",
         {},
         "Keep could not be installed\nIt could not be copied"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        QString file = home.writeFile("archives/Keep.skbundle", row.archive);
        if (row.archive.isEmpty()) {
            file = source("Keep.skbundle", script("Keep"));
            ASSERT_EQ(::mkfifo(QFile::encodeName(file + "/pipe").constData(), 0600), 0);
        }
        const InstallResult result = install(file);
        EXPECT_FALSE(result.ok || result.cancelled);
        EXPECT_TRUE(result.message.contains(row.detail)) << result.message;
        EXPECT_EQ(presenter->alerts.last().style, Alert::Style::Critical);
        EXPECT_EQ(tree(user()), before);
    }
    // No folder to install into.
    FileOperations::removeRecursively(user());
    home.writeFile("user", "a file where the folder should be");
    EXPECT_FALSE(install(path("src/Other.skbundle"), true).ok);
}

TEST_F(InstallTest, OneInstallAtATimeAndCancelKeepsTheOldCopy)
{
    ASSERT_TRUE(install(source("Big.skbundle", script("Big"))).ok);
    const auto before = tree(user());
    home.writeFile("src/Big.skbundle/data.bin", "new");
    std::optional<InstallResult> result;
    controller.addActionBundleOrScriptWithPath(source("Big.skbundle", script("Big"), "Big.zip"),
                                               true, {}, {}, false,
                                               [&](const InstallResult& r) { result = r; });
    EXPECT_TRUE(parser.skipDuplicatesCheck());
    std::optional<InstallResult> refused;
    controller.addActionBundleOrScriptWithPath(source("Two.skbundle", script("Two")), true, {}, {},
                                               true, [&](const InstallResult& r) { refused = r; });
    ASSERT_TRUE(refused && !refused->ok);
    EXPECT_EQ(refused->message, "Another action is already being installed.");
    controller.addActionBundlesOrScripts({path("src/Two.skbundle")});
    windows.progressCancel();
    ASSERT_TRUE(waitUntil([&] { return result.has_value(); }));
    EXPECT_TRUE(result->cancelled);
    EXPECT_FALSE(windows.progressVisible || parser.skipDuplicatesCheck());
    EXPECT_EQ(tree(user()), before);
    EXPECT_TRUE(QDir(path("tmp")).isEmpty());
    spin(100);
    EXPECT_EQ(presenter->alerts.size(), 1) << "the ignored list showed nothing";
}

TEST_F(InstallTest, RewritesHeaderUnderNewNameAndRemoves)
{
    const QString header = QString::fromUtf8(script("Renamed")).section("\n\n", 0, 0) + "\n";
    const InstallResult result = install(source("T.skbundle", script("T")), true, header, "Copy");
    ASSERT_TRUE(result.ok) << result.message;
    EXPECT_EQ(result.action->taskPath, user() + "/Copy.skbundle");
    EXPECT_EQ(result.action->actionName, "Renamed");
    EXPECT_EQ(mode(result.action->scriptPath()), 0777);

    posted.clear();
    controller.deleteActionFiles({result.action});
    EXPECT_FALSE(QFileInfo::exists(result.action->taskPath));
    EXPECT_EQ(posted, QStringList{"SKReloadUserActionsTable"});
    EXPECT_FALSE(parser.getActionWithType("Renamed"));
}

} // namespace
