#include "core/SupportPaths.h"

#include "core/FileOperations.h"
#include "core/Identifiers.h"
#include "tests/support/TestHome.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>

#include <functional>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

TEST(SupportPaths, SkelvoHomeReplacesEveryRoot)
{
    TestHome home;
    const std::pair<QString, const char*> rows[] = {
        {SupportPaths::applicationSupportDirectory(), "data/Skelvo"},
        {SupportPaths::configDirectory(), "config/Skelvo"},
        {SupportPaths::runtimeDirectory(), "runtime/skelvo"},
        {SupportPaths::userActionsDirectory(), "data/Skelvo/Actions"},
        {SupportPaths::tasksDirectory(), "data/Skelvo/Tasks"},
    };
    for (const auto& [folder, relative] : rows) {
        EXPECT_EQ(folder, home.path() + u'/' + QString::fromLatin1(relative));
        EXPECT_TRUE(QFileInfo(folder).isDir()) << relative;
    }
    EXPECT_TRUE(QFileInfo(SupportPaths::savedTextDirectory()).isDir());
    EXPECT_EQ(QFileInfo(SupportPaths::runtimeDirectory()).permissions() & 0x0077, 0)
        << "runtime folder must be private";
}

TEST(SupportPaths, XdgVariablesAndThePrivateRuntimeFallback)
{
    TestHome home;
    qunsetenv("SKELVO_HOME");
    const QByteArray previousData = qgetenv("XDG_DATA_HOME");
    qputenv("XDG_DATA_HOME", QDir(home.path()).filePath(QStringLiteral("xdg")).toUtf8());
    EXPECT_EQ(SupportPaths::applicationSupportDirectory(),
              QDir(home.path()).filePath(QStringLiteral("xdg/Skelvo")));
    qputenv("XDG_DATA_HOME", "relative/path");
    EXPECT_EQ(SupportPaths::applicationSupportDirectory().left(QDir::homePath().size()),
              QDir::homePath());
    qputenv("XDG_DATA_HOME", previousData);

    const QByteArray previousRuntime = qgetenv("XDG_RUNTIME_DIR");
    const QByteArray previousTemp = qgetenv("TMPDIR");
    qunsetenv("XDG_RUNTIME_DIR");
    const QString temp = QDir(home.path()).filePath(QStringLiteral("tmp"));
    qputenv("TMPDIR", temp.toUtf8());
    const QString root = QStringLiteral("%1/skelvo-runtime-%2").arg(temp).arg(::getuid());
    const QString elsewhere = QDir(home.path()).filePath(QStringLiteral("elsewhere"));
    struct Case {
        const char* what;
        std::function<void()> prepare;
        bool accepted;
    };
    const Case cases[] = {
        {"missing: created", [] {}, true},
        {"open to others",
         [&] {
             QDir().mkpath(root);
             ::chmod(QFile::encodeName(root), 0755);
         },
         false},
        {"a link to a private folder",
         [&] {
             QDir().mkpath(elsewhere);
             ::chmod(QFile::encodeName(elsewhere), 0700);
             QFile::link(elsewhere, root);
         },
         false},
        {"another user's",
         [&] {
             QDir().mkpath(root);
             ::chown(QFile::encodeName(root), 65534, 65534);
         },
         ::getuid() != 0},
    };
    for (const Case& c : cases) {
        QDir(temp).removeRecursively();
        QDir().mkpath(temp);
        c.prepare();
        const QString runtime = SupportPaths::runtimeDirectory();
        if (c.accepted) {
            EXPECT_EQ(runtime, root + QStringLiteral("/skelvo")) << c.what;
            struct stat info {};
            ASSERT_EQ(::lstat(QFile::encodeName(root), &info), 0) << c.what;
            EXPECT_EQ(info.st_mode & 07777, 0700u) << c.what;
        } else {
            EXPECT_TRUE(runtime.isEmpty()) << c.what << ": " << runtime.toStdString();
        }
    }
    qputenv("XDG_RUNTIME_DIR", previousRuntime);
    qputenv("TMPDIR", previousTemp);
}

TEST(SupportPaths, UniqueFoldersAreFreshAndNamedByKind)
{
    TestHome home;
    const QString a = SupportPaths::uniquePromisedFilesDirectory();
    const QString b = SupportPaths::uniquePromisedFilesDirectory();
    EXPECT_NE(a, b);
    EXPECT_TRUE(QFileInfo(a).fileName().startsWith(QStringLiteral("SkFilePromise-")));
    EXPECT_TRUE(QFileInfo(SupportPaths::uniqueActionOutputDirectory())
                    .fileName()
                    .startsWith(QStringLiteral("SkActionOutput-")));
    EXPECT_EQ(QFileInfo(a).absolutePath(), SupportPaths::promisedFilesDirectory());
    EXPECT_TRUE(QFileInfo(a).isDir());
}

TEST(SupportPaths, UnwritableSupportFolderIsLoggedAndStillReturned)
{
    TestHome home;
    LogCapture log;
    home.writeFile(QStringLiteral("data/Skelvo"), "a file in the way");
    const QString path = SupportPaths::applicationSupportDirectory();
    EXPECT_TRUE(path.endsWith(QStringLiteral("data/Skelvo")));
    EXPECT_TRUE(
        log.contains(QStringLiteral("Unable to find or create application support directory:\n")));
    EXPECT_TRUE(SupportPaths::tasksDirectory().isEmpty());
    EXPECT_TRUE(log.contains(QStringLiteral("Error creating folder at ")));
}

// A package upgrade replaces the binary under a running instance: the resources found at
// start stay found. A copy of this program, beside its own share/skelvo, deletes itself
// and runs the check below.
TEST(SupportPaths, ResourcesStayFoundWhenTheExecutableIsReplaced)
{
    if (qEnvironmentVariableIsSet("SKELVO_TEST_REPLACED_BINARY")) {
        SupportPaths::locateResources();
        ASSERT_TRUE(QFile::remove(qEnvironmentVariable("SKELVO_TEST_REPLACED_BINARY")));
        EXPECT_EQ(QDir(SupportPaths::resourcesDirectory()).canonicalPath(),
                  qEnvironmentVariable("SKELVO_TEST_RESOURCES"));
        return;
    }
    TestHome home;
    const QDir root(home.path());
    ASSERT_TRUE(root.mkpath(QStringLiteral("share/skelvo")) && root.mkpath(QStringLiteral("bin")));
    const QString copy = root.filePath(QStringLiteral("bin/core_tests"));
    ASSERT_TRUE(QFile::copy(QStringLiteral("/proc/self/exe"), copy));
    QProcess child;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove(QStringLiteral("SKELVO_RESOURCES"));
    environment.insert(QStringLiteral("SKELVO_TEST_REPLACED_BINARY"), copy);
    environment.insert(QStringLiteral("SKELVO_TEST_RESOURCES"),
                       QDir(root.filePath(QStringLiteral("share/skelvo"))).canonicalPath());
    child.setProcessEnvironment(environment);
    child.setProcessChannelMode(QProcess::ForwardedChannels);
    child.start(copy, {QStringLiteral("--gtest_filter=SupportPaths.ResourcesStayFound*")});
    ASSERT_TRUE(child.waitForFinished(60000));
    EXPECT_EQ(child.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(child.exitCode(), 0);
    EXPECT_FALSE(QFileInfo::exists(copy));
}

TEST(Identifiers, DropBarIdsStartAtOneHundredThousandAndExcludeTheAddTile)
{
    for (const auto& [id, expected] : {std::pair{100000LL, true},
                                       {100001LL, true},
                                       {99999LL, false},
                                       {Identifiers::AddToGridTileId, false}}) {
        EXPECT_EQ(Identifiers::isDropbarId(id), expected) << id;
    }
}

TEST(FileOperations, LinksAreCopiedAsTheyAre)
{
    TestHome home;
    const QDir root(home.path());
    home.writeFile(QStringLiteral("source/deeper/one.txt"), "one");
    struct Link {
        const char* name;
        const char* target;
    };
    const Link links[] = {{"relative", "deeper/one.txt"},
                          {"deeper/up", "../deeper"},
                          {"absolute", "/etc/hostname"},
                          {"dangling", "gone/away"}};
    for (const Link& link : links) {
        ASSERT_EQ(::symlink(link.target, QFile::encodeName(
                                             root.filePath(QStringLiteral("source/") + link.name))),
                  0);
    }
    ASSERT_TRUE(FileOperations::copyRecursively(root.filePath(QStringLiteral("source")),
                                                root.filePath(QStringLiteral("copy"))));
    ASSERT_TRUE(FileOperations::copyRecursively(root.filePath(QStringLiteral("source/relative")),
                                                root.filePath(QStringLiteral("copy/alone"))));
    const auto target = [&](const QString& name) {
        char text[256] = {};
        const auto length =
            ::readlink(QFile::encodeName(root.filePath(QStringLiteral("copy/") + name)), text,
                       sizeof text - 1);
        return length > 0 ? std::string(text) : std::string();
    };
    for (const Link& link : links) {
        EXPECT_EQ(target(QString::fromLatin1(link.name)), link.target);
    }
    EXPECT_EQ(target(QStringLiteral("alone")), "deeper/one.txt");
    QFile through(root.filePath(QStringLiteral("copy/relative")));
    ASSERT_TRUE(through.open(QIODevice::ReadOnly));
    EXPECT_EQ(through.readAll(), QByteArray("one"));
}
