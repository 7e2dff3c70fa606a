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

// Every file under a folder with its contents, to compare a whole tree.
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
        m_previousTmp = qgetenv("TMPDIR");
        qputenv("TMPDIR", QFile::encodeName(tmpDir()));
        QDir().mkpath(tmpDir());
        controller.setApplicationVersion("5.0");
        parser.setPresenters(&alerts, &windows);
        controller.setAddToGrid([this](const ActionFilePtr& r) { addedToGrid << r->actionName; });
        center.addObserver({}, nullptr, [this](const Notification& n) { posted << n.name; });
    }
    ~InstallTest() override { qputenv("TMPDIR", m_previousTmp); }

    QString path(const QString& relative) const { return QDir(home.path()).filePath(relative); }
    QString userDir() const { return path("user"); }
    QString tmpDir() const { return path("tmp"); }
    // A bundle (folder) or single-file action under "src".
    QString source(const QString& file, const QByteArray& text)
    {
        const bool bundle = file.endsWith(".skbundle");
        const QString written = home.writeFile("src/" + file + (bundle ? "/action.rb" : ""), text);
        return bundle ? QFileInfo(written).path() : written;
    }
    // Zips the named entries of "src" into "archives/<name>".
    QString zipped(const QString& name, const QStringList& entries)
    {
        QDir().mkpath(path("archives"));
        QProcess zip;
        zip.setWorkingDirectory(path("src"));
        zip.start("zip", QStringList{"-qry", path("archives/" + name)} + entries);
        EXPECT_TRUE(zip.waitForFinished() && zip.exitCode() == 0)
            << zip.readAllStandardError().toStdString();
        return path("archives/" + name);
    }
    InstallResult install(const QString& file, bool headless = false, const QString& header = {},
                          const QString& newName = {})
    {
        std::optional<InstallResult> result;
        controller.addActionBundleOrScriptWithPath(file, true, header, newName, headless,
                                                   [&](const InstallResult& r) { result = r; });
        EXPECT_TRUE(waitUntil([&] { return result.has_value(); }));
        EXPECT_FALSE(controller.isAlreadyInstallingAction());
        EXPECT_FALSE(parser.skipDuplicatesCheck());
        EXPECT_TRUE(QDir(tmpDir()).isEmpty()) << "unpacked files left behind";
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
    std::shared_ptr<FakeAlertPresenter> presenter = std::make_shared<FakeAlertPresenter>();
    AlertHelper alerts{presenter};
    FakeWindowPresenter windows;
    NotificationCenter center;
    ActionFileParser parser{path("internal"), userDir()};
    ActionFilesController controller{parser, alerts, windows, center};
    QStringList posted;
    QStringList addedToGrid;

private:
    QByteArray m_previousTmp;
};

struct InstallRow {
    const char* kind; // folder, file, zipped (a ".skbundle" archive), zip
    const char* extra;
    const char* installedAs;
};

TEST_F(InstallTest, InstallsEachFormUnderItsName)
{
    const InstallRow rows[] = {
        {"folder", "", "Src.skbundle"},
        {"file", "", "Src.skelvo"},
        {"folder", "# MinSkelvoVersion: 5.0.1\n", "Src.skbundle"}, // more components: equal
        {"zipped", "", "Named.skbundle"},
        {"zip", "", "Named.skbundle"},
    };
    for (const InstallRow& row : rows) {
        SCOPED_TRACE(row.kind);
        QDir(path("src")).removeRecursively();
        const QString kind = row.kind;
        const QByteArray text = script("Named", row.extra);
        QString file = source(kind == "file" ? "Src.skelvo" : "Src.skbundle", text);
        if (kind.startsWith("zip")) {
            file = zipped(kind == "zip" ? "Pack.zip" : "Pack.skbundle", {"Src.skbundle"});
        }
        posted.clear();
        windows.progressMessages.clear();
        const InstallResult result = install(file);
        const QString installed = QDir(userDir()).filePath(row.installedAs);
        ASSERT_TRUE(result.ok) << result.message;
        EXPECT_EQ(result.message, "Named Sucessfully Installed");
        ASSERT_TRUE(result.action);
        EXPECT_EQ(result.action->taskPath, installed);
        EXPECT_EQ(readAll(result.action->scriptPath()), text);
        EXPECT_EQ(mode(result.action->scriptPath()), 0777);
        EXPECT_EQ(posted,
                  QStringList({"SKReloadUserActionsTable", "SKActionSingleInstallCompleted"}));
        EXPECT_EQ(windows.progressMessages,
                  kind.startsWith("zip") ? QStringList{"Installing Pack..."} : QStringList{});
        EXPECT_FALSE(windows.progressVisible);
        EXPECT_EQ(titles().last(), "Named Sucessfully Installed");
        EXPECT_EQ(presenter->alerts.last().buttons, QStringList({"Add to Grid", "OK"}));
        EXPECT_EQ(addedToGrid.takeLast(), "Named");
        FileOperations::removeRecursively(installed);
    }
}

TEST_F(InstallTest, ReplacesAnInstalledActionWithoutDuplicateAlert)
{
    home.writeFile("src/Old.skbundle/stale.txt", "old");
    source("Old.skbundle", script("Same", "# Version: 1\n"));
    source("New.skbundle", script("Same", "# Version: 2\n"));
    ASSERT_TRUE(install(zipped("Old.zip", {"Old.skbundle"})).ok);
    const InstallResult result = install(zipped("New.zip", {"New.skbundle"}));
    ASSERT_TRUE(result.ok) << result.message;
    EXPECT_EQ(result.action->version, "2");
    EXPECT_EQ(tree(userDir()).keys(), QStringList({"Same.skbundle", "Same.skbundle/action.rb"}));
    // Opening the installed copy installs it onto itself.
    EXPECT_TRUE(install(path("user/Same.skbundle")).ok);
    EXPECT_EQ(parser.getActionWithType("Same")->version, "2");
    EXPECT_EQ(titles().filter("Duplicate"), QStringList{});
}

TEST_F(InstallTest, ListsEndWithOneAlert)
{
    struct Row {
        QStringList files;
        int answer;
        QString title;
        QStringList added;
    } rows[] = {
        {{"A.skbundle", "b.skelvo", "c.txt"}, 0, "New Actions Installed", {}},
        {{"A.skbundle", "c.txt"}, 0, "A Sucessfully Installed", {"A"}},
        {{"b.skelvo"}, 1, "b Sucessfully Installed", {}},
        {{"c.txt"}, 0, "", {}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.title.toStdString());
        QStringList files;
        for (const QString& file : row.files) {
            files << source(file, script(QFileInfo(file).completeBaseName()));
        }
        presenter->alerts.clear();
        addedToGrid.clear();
        presenter->setNextAnswer(row.answer);
        controller.addActionBundlesOrScripts(files);
        EXPECT_TRUE(waitUntil([&] {
            return !controller.isAlreadyInstallingAction() &&
                   (row.title.isEmpty() || !presenter->alerts.isEmpty());
        }));
        EXPECT_EQ(titles(), row.title.isEmpty() ? QStringList{} : QStringList{row.title});
        EXPECT_EQ(addedToGrid, row.added);
        if (row.files.size() == 3) {
            EXPECT_EQ(presenter->alerts.value(0).message,
                      "2 new actions were installed successfully.\n\nYou can add these actions "
                      "to the grid from the add action menu.");
        }
    }
    EXPECT_EQ(tree(userDir()).keys().filter("c.txt"), QStringList{});
}

TEST_F(InstallTest, RefusalsInstallNothing)
{
    struct Row {
        QByteArray text;
        bool headless;
        QString title;
        QString detail;
        QStringList settingsPages;
    } rows[] = {
        {"# Skelvo Action Info\n# Name: Bad\n# Description: d\n# Handles: Files\n",
         false,
         "Invalid Action Meta Data",
         "The action script you are trying to add contains invalid or missing meta data. The "
         "following problems were found:\n\n-Creator field is missing\n-URL field is missing\n",
         {}},
        {script("New", "# MinSkelvoVersion: 5.1\n"),
         false,
         "New action requires a newer version of Skelvo",
         "This action requires a minimum of Skelvo version 5.1. You currently have version "
         "5.0.\n\nYou can update to the latest version from the Updates tab in the Settings.",
         {"Updates"}},
        {script("Head", "# MinSkelvoVersion: 6\n"), true, "", "version 6", {}},
        {"puts 1\n", true, "", "-Section beginning with # Skelvo Action Info not found", {}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.detail.toStdString());
        presenter->alerts.clear();
        windows.settingsPages.clear();
        LogCapture log;
        const InstallResult result = install(source("R.skbundle", row.text), row.headless);
        EXPECT_FALSE(result.ok);
        EXPECT_TRUE(result.message.contains(row.detail)) << result.message;
        EXPECT_EQ(titles(), row.title.isEmpty() ? QStringList{} : QStringList{row.title});
        if (!row.title.isEmpty()) {
            EXPECT_EQ(presenter->alerts.first().message, row.detail);
        } else {
            EXPECT_TRUE(log.contains(row.detail));
        }
        EXPECT_EQ(windows.settingsPages, row.settingsPages);
        EXPECT_FALSE(QFileInfo::exists(userDir() + "/R.skbundle"));
    }
}

TEST_F(InstallTest, FailedArchivesLeaveTheInstalledCopyUntouched)
{
    source("Keep.skbundle", script("Keep"));
    home.writeFile("src/Keep.skbundle/data.bin", QByteArray(5000, 'k'));
    ASSERT_TRUE(install(path("src/Keep.skbundle")).ok);
    const auto before = tree(userDir());
    QDir(path("src")).removeRecursively();

    source("Keep.skbundle", script("Keep", "# Version: 2\n"));
    source("Other.skbundle", script("Other"));
    source("Esc.skbundle", script("../../Evil"));
    const QByteArray good = readAll(zipped("good.zip", {"Keep.skbundle"}));
    QFile::resize(path("src/Keep.skbundle/action.rb"), 0);
    struct Row {
        const char* name;
        QByteArray archive;
        const char* detail;
    } rows[] = {
        {"garbage", QByteArray(4096, '\x5a'), ""},
        {"truncated", good.left(good.size() / 2), ""},
        {"two bundles", readAll(zipped("two.zip", {"Keep.skbundle", "Other.skbundle"})),
         "exactly one action bundle"},
        {"no header", readAll(zipped("empty.zip", {"Keep.skbundle"})), "not found"},
        {"escaping name", readAll(zipped("esc.zip", {"Esc.skbundle"})),
         "cannot be used as the name"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        home.writeFile("archives/Keep.skbundle", row.archive);
        const InstallResult result = install(path("archives/Keep.skbundle"));
        EXPECT_FALSE(result.ok || result.cancelled);
        EXPECT_TRUE(result.message.contains(row.detail)) << result.message;
        EXPECT_EQ(presenter->alerts.last().style, Alert::Style::Critical);
        EXPECT_EQ(tree(userDir()), before);
    }
}

TEST_F(InstallTest, OneInstallAtATimeAndCancelKeepsTheOldCopy)
{
    ASSERT_TRUE(install(source("Big.skbundle", script("Big"))).ok);
    const auto before = tree(userDir());
    home.writeFile("src/Big.skbundle/data.bin", "new");
    const QString archive = zipped("Big.skbundle", {"Big.skbundle"});

    std::optional<InstallResult> result;
    controller.addActionBundleOrScriptWithPath(archive, true, {}, {}, false,
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
    EXPECT_FALSE(windows.progressVisible);
    EXPECT_EQ(tree(userDir()), before);
    EXPECT_TRUE(QDir(tmpDir()).isEmpty());
    EXPECT_FALSE(parser.skipDuplicatesCheck());
    spin(100);
    EXPECT_TRUE(presenter->alerts.size() == 1) << "the ignored list showed nothing";
}

TEST_F(InstallTest, RewritesHeaderUnderNewNameAndRemoves)
{
    const QString header = QString::fromUtf8(script("Renamed")).section("\n\n", 0, 0) + "\n";
    const InstallResult result = install(source("T.skbundle", script("T")), true, header, "Copy");
    ASSERT_TRUE(result.ok) << result.message;
    EXPECT_EQ(result.action->taskPath, userDir() + "/Copy.skbundle");
    EXPECT_EQ(result.action->actionName, "Renamed");
    EXPECT_EQ(mode(result.action->scriptPath()), 0777);

    posted.clear();
    controller.deleteActionFiles({result.action});
    EXPECT_FALSE(QFileInfo::exists(result.action->taskPath));
    EXPECT_EQ(posted, QStringList{"SKReloadUserActionsTable"});
    EXPECT_FALSE(parser.getActionWithType("Renamed"));
}

TEST_F(InstallTest, AFolderThatCannotBeWrittenFailsInsteadOfRetrying)
{
    home.writeFile("user", "a file where the folder should be");
    const InstallResult result = install(source("W.skbundle", script("W")), true);
    EXPECT_FALSE(result.ok);
    EXPECT_TRUE(result.message.startsWith("W could not be installed\nIt could not be copied"))
        << result.message;
}

} // namespace
