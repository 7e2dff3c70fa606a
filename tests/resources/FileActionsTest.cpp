// The shipped file actions on real files, run through sk in the real application.
#include "tests/support/HeadlessApp.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

struct stat statOf(const QString& path)
{
    struct stat result {};
    ::lstat(QFile::encodeName(path).constData(), &result);
    return result;
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(missing)");
}

QStringList entries(const QString& folder)
{
    return QDir(folder).entryList(
        QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
}

void setTimes(const QString& path, time_t seconds)
{
    const timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, AT_SYMLINK_NOFOLLOW);
}

QString outputFile(const QString& path)
{
    return "Output_File: " + QString::fromLatin1(path.toUtf8().toBase64());
}

class FileActionsTest : public WithHeadlessApp<FileActionsTest> {
protected:
    void SetUp() override
    {
        const QString test =
            QString::fromLatin1(::testing::UnitTest::GetInstance()->current_test_info()->name());
        m_source = app->path(test + "/source");
        m_destination = app->path(test + "/dest");
        QDir().mkpath(m_source);
        QDir().mkpath(m_destination);
    }
    QString source(const QString& name) const { return m_source + u'/' + name; }
    QString destination(const QString& name) const { return m_destination + u'/' + name; }

    // Adds a tile of `type` that puts what it takes into `folder`, and drops `items` on it.
    static SkResult drop(const QString& type, const QStringList& items, const QString& folder)
    {
        const QString name = QStringLiteral("Tile %1").arg(++tiles);
        const SkResult added =
            app->sk({"add-action", type, "--name", name, "--options", "path=" + folder});
        EXPECT_EQ(added.status, 0) << added.err;
        return app->sk(QStringList{"run", name} + items);
    }
    SkResult drop(const QString& type, const QStringList& items) const
    {
        return drop(type, items, m_destination);
    }

    static inline int tiles = 0;
    QString m_source;
    QString m_destination;
};

TEST_F(FileActionsTest, CopyFilesCopiesFilesAndFoldersWithoutOverwriting)
{
    app->writeFile(source("a.txt").mid(app->path().size() + 1), "new a");
    QFile(source("a.txt")).copy(destination("a.txt"));
    QFile::copy(source("a.txt"), destination("a 2.txt"));
    const QString photos = source("photos");
    QDir().mkpath(photos + "/deeper");
    QFile::copy(source("a.txt"), photos + "/one.jpg");
    QFile::copy(source("a.txt"), photos + "/deeper/two.jpg");
    ASSERT_EQ(::symlink("deeper/two.jpg", QFile::encodeName(photos + "/link.jpg")), 0);
    ASSERT_EQ(::symlink("/nowhere", QFile::encodeName(photos + "/dangling")), 0);
    ::chmod(QFile::encodeName(photos + "/one.jpg"), 0640);
    ::chmod(QFile::encodeName(photos), 0751);
    setTimes(photos + "/one.jpg", 981173106);
    setTimes(photos, 981173107);
    QFile::copy(source("a.txt"), source("notes"));
    QFile(destination("a.txt")).open(QIODevice::WriteOnly);

    const SkResult result = drop("Copy Files", {source("a.txt"), photos, source("notes")});

    EXPECT_EQ(result.out, "Copied 3 items to dest\n") << result.err;
    EXPECT_TRUE(
        app->console().contains("Determinate: 1\nBegin_Message: Copying a.txt (1 of 3)\n" +
                                outputFile(destination("a 3.txt")) +
                                "\nProgress: 33\nBegin_Message: Copying photos (2 of 3)\n" +
                                outputFile(destination("photos")) +
                                "\nProgress: 66\nBegin_Message: Copying notes (3 of 3)\n" +
                                outputFile(destination("notes")) +
                                "\nProgress: 100\nFinish_Message: Copied 3 items to dest\n"))
        << app->console().right(800);
    // Nothing that was there is touched; the taken name got the next free number.
    EXPECT_EQ(readFile(destination("a.txt")), "");
    EXPECT_EQ(readFile(destination("a 3.txt")), "new a");
    EXPECT_EQ(entries(m_destination),
              (QStringList{"a 2.txt", "a 3.txt", "a.txt", "notes", "photos"}));
    // The folder arrives whole, links as links, with permissions and times.
    const QString copied = destination("photos");
    EXPECT_EQ(readFile(copied + "/deeper/two.jpg"), "new a");
    EXPECT_TRUE(S_ISLNK(statOf(copied + "/link.jpg").st_mode));
    EXPECT_TRUE(S_ISLNK(statOf(copied + "/dangling").st_mode));
    EXPECT_EQ(statOf(copied + "/one.jpg").st_mode & 07777, 0640u);
    EXPECT_EQ(statOf(copied).st_mode & 07777, 0751u);
    EXPECT_EQ(statOf(copied + "/one.jpg").st_mtime, 981173106);
    EXPECT_EQ(statOf(copied).st_mtime, 981173107);
    EXPECT_TRUE(QFileInfo::exists(photos + "/deeper/two.jpg"));
}

TEST_F(FileActionsTest, NamesAndFinishMessages)
{
    struct Row {
        QStringList sources; // a trailing slash makes a folder
        QStringList taken;   // at the destination beforehand
        const char* type;
        const char* out;
        QStringList made; // at the destination afterwards, besides what was taken
    };
    // A destination with quotes in its name: written escaped, read back as it is.
    m_destination = app->path("NamesAndFinishMessages/my \"quoted\" dest");
    const Row rows[] = {
        {{"report.pdf"},
         {"report.pdf", "report 2.pdf"},
         "Copy Files",
         "Copied report.pdf as report 3.pdf to my \"quoted\" dest\n",
         {"report 3.pdf"}},
        {{"archive.tar.gz", ".env", "photos.2024/"},
         {"archive.tar.gz", ".env", "photos.2024/"},
         "Copy Files",
         "Copied 3 items to my \"quoted\" dest\n",
         {"archive.tar 2.gz", ".env 2", "photos.2024 2"}},
        {{"notes.txt"},
         {},
         "Copy Files",
         "Copied notes.txt to my \"quoted\" dest\n",
         {"notes.txt"}},
        // "error" in a finish message would mark the run as failed.
        {{"error.log"}, {}, "Move Files", "Moved 1 item to my \"quoted\" dest\n", {"error.log"}},
        {{"say \"hi\".txt"},
         {},
         "Move Files",
         "Moved say \"hi\".txt to my \"quoted\" dest\n",
         {"say \"hi\".txt"}},
    };
    for (const Row& row : rows) {
        QDir(m_source).removeRecursively();
        QDir(m_destination).removeRecursively();
        QStringList items;
        for (const QString& name : row.sources) {
            items << source(name).chopped(name.endsWith(u'/') ? 1 : 0);
            QDir().mkpath(name.endsWith(u'/') ? items.last() : m_source);
            if (!name.endsWith(u'/')) {
                app->writeFile(items.last().mid(app->path().size() + 1), name.toUtf8());
            }
        }
        QDir().mkpath(m_destination);
        for (const QString& name : row.taken) {
            if (name.endsWith(u'/')) {
                QDir().mkpath(destination(name));
            } else {
                // A dangling link holds its name as well.
                ::symlink("/nowhere", QFile::encodeName(destination(name)));
            }
        }
        const SkResult result = drop(QString::fromLatin1(row.type), items);
        EXPECT_EQ(result.out, QString::fromUtf8(row.out)) << result.err;
        QStringList expected = row.made;
        for (const QString& name : row.taken) {
            expected << QString(name).remove(u'/');
        }
        expected.sort();
        EXPECT_EQ(entries(m_destination), expected) << row.out;
        EXPECT_EQ(entries(m_source).isEmpty(), row.type[0] == 'M') << row.out;
    }
}

TEST_F(FileActionsTest, RefusalsAndPartialFailures)
{
    const QString folder = source("photos");
    QDir().mkpath(folder + "/inside");
    const QString here = source("here.txt");
    QFile::copy(QStringLiteral(SKELVO_SOURCE_RESOURCES "/Actions/lib/runner.rb"), here);
    struct Row {
        const char* type;
        QStringList items;
        QString folder;
        QString err;
    };
    const Row rows[] = {
        {"Move Files", {folder}, folder + "/inside", "Cannot move photos into itself"},
        {"Move Files", {folder}, folder, "Cannot move photos into itself"},
        {"Copy Files", {folder}, folder + "/inside", "Cannot copy photos into itself"},
        {"Move Files", {here}, m_source, "here.txt is already in source"},
        {"Copy Files",
         {here, source("two.txt"), folder},
         m_destination,
         "Copied 2 of 3 items to dest\ntwo.txt no longer exists"},
    };
    for (const Row& row : rows) {
        const SkResult result = drop(QString::fromLatin1(row.type), row.items, row.folder);
        EXPECT_EQ(result.status, 1) << row.err;
        EXPECT_EQ(result.err, "Error: " + row.err + u'\n');
    }
    EXPECT_EQ(entries(m_source), (QStringList{"here.txt", "photos"}));
    EXPECT_EQ(entries(folder), QStringList{"inside"});
    EXPECT_EQ(entries(m_destination), (QStringList{"here.txt", "photos"}));
    // Copying into the same folder makes a numbered copy.
    EXPECT_EQ(drop("Copy Files", {here}, m_source).out,
              "Copied here.txt as here 2.txt to source\n");
}

TEST_F(FileActionsTest, MoveFilesAcrossFileSystems)
{
    QTemporaryDir other("/dev/shm/skelvo-test-XXXXXX");
    if (!other.isValid() || statOf(other.path()).st_dev == statOf(app->path()).st_dev) {
        GTEST_SKIP() << "needs a second file system at /dev/shm";
    }
    const QString album = source("album");
    QDir().mkpath(album);
    {
        QFile song(album + "/song.mp3");
        ASSERT_TRUE(song.open(QIODevice::WriteOnly));
        song.write(QByteArray(9 * 1024 * 1024, 's'));
    }
    ASSERT_EQ(::symlink("song.mp3", QFile::encodeName(album + "/latest")), 0);
    setTimes(album + "/song.mp3", 1000000000);
    // A socket cannot be copied, so this folder's copy fails halfway through.
    const QString project = source("project");
    QDir().mkpath(project);
    QFile::copy(QStringLiteral(SKELVO_SOURCE_RESOURCES "/Actions/lib/runner.rb"),
                project + "/a.txt");
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const QByteArray socketPath = QFile::encodeName(project + "/m.sock");
    ASSERT_LT(static_cast<size_t>(socketPath.size()), sizeof address.sun_path);
    std::copy(socketPath.begin(), socketPath.end(), address.sun_path);
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ::close(fd);

    const SkResult result = drop("Move Files", {album, project}, other.path());

    const QString name = QFileInfo(other.path()).fileName();
    EXPECT_EQ(result.err, QStringLiteral("Error: Moved 1 of 2 items to %1\nCannot move m.sock "
                                         "(socket files cannot be copied)\n")
                              .arg(name));
    const QString moved = other.filePath("album");
    EXPECT_EQ(QFileInfo(moved + "/song.mp3").size(), 9 * 1024 * 1024);
    EXPECT_EQ(statOf(moved + "/song.mp3").st_mtime, 1000000000);
    EXPECT_EQ(QFile::symLinkTarget(moved + "/latest"), moved + "/song.mp3");
    // The failed original is whole, and neither a partial copy nor its claimed name is left.
    EXPECT_EQ(entries(m_source), QStringList{"project"});
    EXPECT_EQ(entries(project), (QStringList{"a.txt", "m.sock"}));
    EXPECT_EQ(entries(other.path()), QStringList{"album"});
    // A large item reports its progress while it is copied.
    EXPECT_TRUE(app->console().contains("Moving album (1 of 2)\nProgress: ") &&
                app->console().contains(outputFile(moved) + "\nProgress: 50\n"))
        << app->console().right(600);
}

} // namespace
