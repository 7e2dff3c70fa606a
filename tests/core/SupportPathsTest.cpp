#include "core/SupportPaths.h"

#include "core/Identifiers.h"
#include "tests/support/TestHome.h"

#include <QDir>
#include <QFileInfo>

#include <functional>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

TEST(SupportPaths, SkelvoHomeReplacesEveryRoot)
{
    TestHome home;
    const QDir root(home.path());
    EXPECT_EQ(SupportPaths::applicationSupportDirectory(),
              root.filePath(QStringLiteral("data/Skelvo")));
    EXPECT_EQ(SupportPaths::configDirectory(), root.filePath(QStringLiteral("config/Skelvo")));
    EXPECT_EQ(SupportPaths::runtimeDirectory(), root.filePath(QStringLiteral("runtime/skelvo")));
    EXPECT_EQ(SupportPaths::userActionsDirectory(),
              root.filePath(QStringLiteral("data/Skelvo/Actions")));
    EXPECT_EQ(SupportPaths::tasksDirectory(), root.filePath(QStringLiteral("data/Skelvo/Tasks")));
    for (const QString& folder :
         {SupportPaths::userActionsDirectory(), SupportPaths::tasksDirectory(),
          SupportPaths::savedTextDirectory()}) {
        EXPECT_TRUE(QFileInfo(folder).isDir()) << folder.toStdString();
    }
    EXPECT_EQ(QFileInfo(SupportPaths::runtimeDirectory()).permissions() & 0x0077, 0)
        << "runtime folder must be private";
}

TEST(SupportPaths, XdgVariablesAreHonouredAndRelativeOnesIgnored)
{
    TestHome home;
    qunsetenv("SKELVO_HOME");
    const QByteArray previous = qgetenv("XDG_DATA_HOME");
    qputenv("XDG_DATA_HOME", QDir(home.path()).filePath(QStringLiteral("xdg")).toUtf8());
    EXPECT_EQ(SupportPaths::applicationSupportDirectory(),
              QDir(home.path()).filePath(QStringLiteral("xdg/Skelvo")));
    qputenv("XDG_DATA_HOME", "relative/path");
    EXPECT_EQ(SupportPaths::applicationSupportDirectory().left(QDir::homePath().size()),
              QDir::homePath());
    qputenv("XDG_DATA_HOME", previous);
}

TEST(SupportPaths, RuntimeFallbackIsAPrivateFolderNamedByUid)
{
    TestHome home;
    qunsetenv("SKELVO_HOME");
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

TEST(Identifiers, TileIds)
{
    EXPECT_EQ(Identifiers::AddToGridTileId, 0x7FFFFFFFFFFFFFFELL);
    EXPECT_TRUE(Identifiers::isDropbarId(100000));
    EXPECT_TRUE(Identifiers::isDropbarId(100001));
    EXPECT_FALSE(Identifiers::isDropbarId(99999));
    EXPECT_FALSE(Identifiers::isDropbarId(Identifiers::AddToGridTileId));
}
