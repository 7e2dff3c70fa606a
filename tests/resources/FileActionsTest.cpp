// The four shipped file actions ("Copy Files", "Move Files", "Rename & Copy Files",
// "Rename & Move Files") run through runner.rb on real files.

#include "actions/ActionFileParser.h"
#include "tests/resources/RunnerHarness.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using namespace runner_test;

namespace {

const QString CopyFiles = QStringLiteral("Copy Files");
const QString MoveFiles = QStringLiteral("Move Files");
const QString RenameCopyFiles = QStringLiteral("Rename & Copy Files");
const QString RenameMoveFiles = QStringLiteral("Rename & Move Files");

struct stat statOf(const QString& path)
{
    struct stat result {};
    ::lstat(QFile::encodeName(path).constData(), &result);
    return result;
}

bool exists(const QString& path)
{
    struct stat result {};
    return ::lstat(QFile::encodeName(path).constData(), &result) == 0;
}

QString linkTarget(const QString& path)
{
    char buffer[4096];
    const ssize_t length = ::readlink(QFile::encodeName(path).constData(), buffer, sizeof buffer);
    return length < 0 ? QString() : QFile::decodeName(QByteArray(buffer, length));
}

void setTimes(const QString& path, time_t seconds)
{
    const timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, AT_SYMLINK_NOFOLLOW);
}

QString outputFileLine(const QString& path)
{
    return QStringLiteral("Output_File: ") + QString::fromLatin1(path.toUtf8().toBase64());
}

QStringList entries(const QString& folder)
{
    return QDir(folder).entryList(
        QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
}

class FileActionsTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid());
        m_source = m_dir.filePath(QStringLiteral("source"));
        m_destination = m_dir.filePath(QStringLiteral("dest"));
        ASSERT_TRUE(QDir().mkpath(m_source));
        ASSERT_TRUE(QDir().mkpath(m_destination));
    }

    QString source(const QString& name) const { return m_source + QLatin1Char('/') + name; }
    QString destination(const QString& name) const
    {
        return m_destination + QLatin1Char('/') + name;
    }

    static QString bundle(const QString& action)
    {
        return QDir(actionsFolder()).filePath(action + QStringLiteral(".skbundle"));
    }

    // Runs the action on a files drop into `folder` ("path" escaped the way Skelvo writes it).
    Transcript run(const QString& action, const QStringList& items, const QString& folder,
                   std::vector<std::pair<QString, QString>> variables = {})
    {
        variables.insert(variables.begin(),
                         {QStringLiteral("dragged_type"), QStringLiteral("files")});
        if (!folder.isNull()) {
            variables.emplace_back(QStringLiteral("path"), escapeQuotes(folder));
        }
        variables.emplace_back(QStringLiteral("tmp_folder"), QDir::tempPath());
        const QString taskFile =
            writeFile(m_dir.filePath(QStringLiteral("task-%1").arg(++m_runs)),
                      taskDescription(bundle(action), QStringLiteral("dragged"), variables, items));
        return runTask(taskFile);
    }
    Transcript run(const QString& action, const QStringList& items)
    {
        return run(action, items, m_destination);
    }

    QTemporaryDir m_dir;
    QString m_source;
    QString m_destination;
    int m_runs = 0;
};

TEST_F(FileActionsTest, BundlesCarryTheMetadataFolderTilesReferTo)
{
    QTemporaryDir userFolder;
    ActionFileParser parser(actionsFolder(), userFolder.path());
    for (const QString& name : {CopyFiles, MoveFiles, RenameCopyFiles, RenameMoveFiles}) {
        const auto record = parser.processPath(bundle(name));
        ASSERT_TRUE(record.has_value()) << name.toStdString();
        QString errors;
        EXPECT_TRUE(record->validateMetaData(nullptr, &errors)) << errors.toStdString();
        EXPECT_EQ(record->actionName, name);
        EXPECT_FALSE(record->isPythonAction);
        EXPECT_TRUE(record->handlesFilesDragType());
        EXPECT_FALSE(record->handlesTextDragType());
        EXPECT_TRUE(record->handlesDragged());
        EXPECT_FALSE(record->handlesClicked());
        EXPECT_TRUE(record->useSelectedItemNameAndIcon);
        EXPECT_FALSE(record->skipConfig);
        EXPECT_EQ(record->optionsNib, name.startsWith(QStringLiteral("Rename"))
                                          ? QStringLiteral("ChooseFolderRename")
                                          : QStringLiteral("ChooseFolder"));
        EXPECT_EQ(record->iconPath(), QDir(bundle(name)).filePath(QStringLiteral("icon.png")));
    }
}

TEST_F(FileActionsTest, CopyFilesCopiesFilesAndFoldersWithoutOverwriting)
{
    writeFile(source(QStringLiteral("a.txt")), "new a");
    writeFile(destination(QStringLiteral("a.txt")), "old a");
    writeFile(destination(QStringLiteral("a 2.txt")), "old a 2");
    const QString photos = source(QStringLiteral("photos"));
    writeFile(photos + QStringLiteral("/one.jpg"), "jpeg one");
    writeFile(photos + QStringLiteral("/deeper/two.jpg"), "jpeg two");
    ASSERT_EQ(::symlink("deeper/two.jpg", QFile::encodeName(photos + QStringLiteral("/link.jpg"))),
              0);
    ASSERT_EQ(::symlink("/nowhere/at/all", QFile::encodeName(photos + QStringLiteral("/dangling"))),
              0);
    ::chmod(QFile::encodeName(photos + QStringLiteral("/one.jpg")), 0640);
    ::chmod(QFile::encodeName(photos), 0751);
    setTimes(photos + QStringLiteral("/one.jpg"), 981173106);
    setTimes(photos, 981173107);
    writeFile(source(QStringLiteral("notes")), "notes");

    const Transcript transcript =
        run(CopyFiles, {source(QStringLiteral("a.txt")), photos, source(QStringLiteral("notes"))});

    ASSERT_EQ(transcript.exitCode, 0) << transcript.lines().join('\n').toStdString();
    EXPECT_EQ(
        transcript.lines(),
        (QStringList{
            QStringLiteral("Determinate: 1"),
            QStringLiteral("Begin_Message: Copying a.txt (1 of 3)"),
            outputFileLine(destination(QStringLiteral("a 3.txt"))), QStringLiteral("Progress: 33"),
            QStringLiteral("Begin_Message: Copying photos (2 of 3)"),
            outputFileLine(destination(QStringLiteral("photos"))), QStringLiteral("Progress: 66"),
            QStringLiteral("Begin_Message: Copying notes (3 of 3)"),
            outputFileLine(destination(QStringLiteral("notes"))), QStringLiteral("Progress: 100"),
            QStringLiteral("Finish_Message: Copied 3 items to dest")}));

    // Nothing that was there is touched; the taken name got the next free number.
    EXPECT_EQ(readFile(destination(QStringLiteral("a.txt"))), QByteArrayLiteral("old a"));
    EXPECT_EQ(readFile(destination(QStringLiteral("a 2.txt"))), QByteArrayLiteral("old a 2"));
    EXPECT_EQ(readFile(destination(QStringLiteral("a 3.txt"))), QByteArrayLiteral("new a"));
    EXPECT_EQ(
        entries(m_destination),
        (QStringList{QStringLiteral("a 2.txt"), QStringLiteral("a 3.txt"), QStringLiteral("a.txt"),
                     QStringLiteral("notes"), QStringLiteral("photos")}));

    // The folder arrives whole, links as links, with permissions and times.
    const QString copied = destination(QStringLiteral("photos"));
    EXPECT_EQ(readFile(copied + QStringLiteral("/one.jpg")), QByteArrayLiteral("jpeg one"));
    EXPECT_EQ(readFile(copied + QStringLiteral("/deeper/two.jpg")), QByteArrayLiteral("jpeg two"));
    EXPECT_TRUE(S_ISLNK(statOf(copied + QStringLiteral("/link.jpg")).st_mode));
    EXPECT_EQ(linkTarget(copied + QStringLiteral("/link.jpg")), QStringLiteral("deeper/two.jpg"));
    EXPECT_EQ(linkTarget(copied + QStringLiteral("/dangling")), QStringLiteral("/nowhere/at/all"));
    EXPECT_EQ(statOf(copied + QStringLiteral("/one.jpg")).st_mode & 07777, 0640u);
    EXPECT_EQ(statOf(copied).st_mode & 07777, 0751u);
    EXPECT_EQ(statOf(copied + QStringLiteral("/one.jpg")).st_mtime, 981173106);
    EXPECT_EQ(statOf(copied).st_mtime, 981173107);

    // Copying leaves the originals.
    EXPECT_EQ(readFile(source(QStringLiteral("a.txt"))), QByteArrayLiteral("new a"));
    EXPECT_TRUE(exists(photos + QStringLiteral("/deeper/two.jpg")));
}

TEST_F(FileActionsTest, TakenNamesGetANumberBeforeTheExtension)
{
    const QStringList names{QStringLiteral("report.pdf"), QStringLiteral("archive.tar.gz"),
                            QStringLiteral(".env"), QStringLiteral("photos.2024")};
    QStringList items;
    for (const QString& name : names) {
        if (name == QStringLiteral("photos.2024")) {
            QDir().mkpath(source(name));
            QDir().mkpath(destination(name));
        } else {
            writeFile(source(name), name.toUtf8());
            writeFile(destination(name), "taken");
        }
        items << source(name);
    }
    // A dangling link holds its name as well.
    ASSERT_EQ(::symlink("/nowhere", QFile::encodeName(destination(QStringLiteral("report 2.pdf")))),
              0);

    const Transcript transcript = run(CopyFiles, items);

    ASSERT_EQ(transcript.exitCode, 0) << transcript.lines().join('\n').toStdString();
    EXPECT_EQ(readFile(destination(QStringLiteral("report 3.pdf"))),
              QByteArrayLiteral("report.pdf"));
    EXPECT_EQ(readFile(destination(QStringLiteral("archive.tar 2.gz"))),
              QByteArrayLiteral("archive.tar.gz"));
    EXPECT_EQ(readFile(destination(QStringLiteral(".env 2"))), QByteArrayLiteral(".env"));
    EXPECT_TRUE(QFileInfo(destination(QStringLiteral("photos.2024 2"))).isDir());
    EXPECT_EQ(linkTarget(destination(QStringLiteral("report 2.pdf"))), QStringLiteral("/nowhere"));
    EXPECT_EQ(transcript.commands(QStringLiteral("Finish_Message")),
              QStringList{QStringLiteral("Finish_Message: Copied 4 items to dest")});
}

TEST_F(FileActionsTest, OneItemIsNamedInTheFinishMessage)
{
    writeFile(source(QStringLiteral("notes.txt")), "n");
    writeFile(source(QStringLiteral("error.log")), "e");

    Transcript transcript = run(CopyFiles, {source(QStringLiteral("notes.txt"))});
    EXPECT_EQ(transcript.commands(QStringLiteral("Finish_Message")),
              QStringList{QStringLiteral("Finish_Message: Copied notes.txt to dest")});
    EXPECT_EQ(transcript.commands(QStringLiteral("Begin_Message")),
              QStringList{QStringLiteral("Begin_Message: Copying notes.txt")});

    transcript = run(CopyFiles, {source(QStringLiteral("notes.txt"))});
    EXPECT_EQ(
        transcript.commands(QStringLiteral("Finish_Message")),
        QStringList{QStringLiteral("Finish_Message: Copied notes.txt as notes 2.txt to dest")});

    // "error" in a finish message would mark the run as failed.
    transcript = run(CopyFiles, {source(QStringLiteral("error.log"))});
    EXPECT_EQ(transcript.commands(QStringLiteral("Finish_Message")),
              QStringList{QStringLiteral("Finish_Message: Copied 1 item to dest")});
    EXPECT_TRUE(exists(destination(QStringLiteral("error.log"))));
}

TEST_F(FileActionsTest, MoveFilesMovesWithinOneFileSystem)
{
    writeFile(source(QStringLiteral("a.txt")), "new a");
    writeFile(destination(QStringLiteral("a.txt")), "old a");
    writeFile(source(QStringLiteral("folder/inner.txt")), "inner");

    const Transcript transcript =
        run(MoveFiles, {source(QStringLiteral("a.txt")), source(QStringLiteral("folder"))});

    ASSERT_EQ(transcript.exitCode, 0) << transcript.lines().join('\n').toStdString();
    EXPECT_EQ(transcript.lines(),
              (QStringList{QStringLiteral("Determinate: 1"),
                           QStringLiteral("Begin_Message: Moving a.txt (1 of 2)"),
                           outputFileLine(destination(QStringLiteral("a 2.txt"))),
                           QStringLiteral("Progress: 50"),
                           QStringLiteral("Begin_Message: Moving folder (2 of 2)"),
                           outputFileLine(destination(QStringLiteral("folder"))),
                           QStringLiteral("Progress: 100"),
                           QStringLiteral("Finish_Message: Moved 2 items to dest")}));
    EXPECT_EQ(readFile(destination(QStringLiteral("a.txt"))), QByteArrayLiteral("old a"));
    EXPECT_EQ(readFile(destination(QStringLiteral("a 2.txt"))), QByteArrayLiteral("new a"));
    EXPECT_EQ(readFile(destination(QStringLiteral("folder/inner.txt"))),
              QByteArrayLiteral("inner"));
    EXPECT_TRUE(entries(m_source).isEmpty());
}

class CrossFileSystemTest : public FileActionsTest {
protected:
    void SetUp() override
    {
        FileActionsTest::SetUp();
        m_other = std::make_unique<QTemporaryDir>(QStringLiteral("/dev/shm/skelvo-test-XXXXXX"));
        if (!m_other->isValid() || statOf(m_other->path()).st_dev == statOf(m_dir.path()).st_dev) {
            GTEST_SKIP() << "needs a second file system at /dev/shm";
        }
    }

    std::unique_ptr<QTemporaryDir> m_other;
};

TEST_F(CrossFileSystemTest, MoveFilesCopiesAcrossFileSystemsThenRemovesTheOriginal)
{
    const QString folder = source(QStringLiteral("album"));
    writeFile(folder + QStringLiteral("/song.mp3"), QByteArray(9 * 1024 * 1024, 's'));
    ASSERT_EQ(::symlink("song.mp3", QFile::encodeName(folder + QStringLiteral("/latest"))), 0);
    setTimes(folder + QStringLiteral("/song.mp3"), 1000000000);
    writeFile(source(QStringLiteral("single.txt")), "single");
    writeFile(m_other->filePath(QStringLiteral("single.txt")), "taken");

    const Transcript transcript =
        run(MoveFiles, {folder, source(QStringLiteral("single.txt"))}, m_other->path());

    ASSERT_EQ(transcript.exitCode, 0) << transcript.lines().join('\n').toStdString();
    const QString moved = m_other->filePath(QStringLiteral("album"));
    EXPECT_EQ(readFile(moved + QStringLiteral("/song.mp3")), QByteArray(9 * 1024 * 1024, 's'));
    EXPECT_EQ(statOf(moved + QStringLiteral("/song.mp3")).st_mtime, 1000000000);
    EXPECT_EQ(linkTarget(moved + QStringLiteral("/latest")), QStringLiteral("song.mp3"));
    EXPECT_EQ(readFile(m_other->filePath(QStringLiteral("single 2.txt"))),
              QByteArrayLiteral("single"));
    EXPECT_EQ(readFile(m_other->filePath(QStringLiteral("single.txt"))),
              QByteArrayLiteral("taken"));
    EXPECT_TRUE(entries(m_source).isEmpty());
    EXPECT_EQ(entries(m_other->path()),
              (QStringList{QStringLiteral("album"), QStringLiteral("single 2.txt"),
                           QStringLiteral("single.txt")}));
    // A large item reports its progress while it is copied, never going back.
    const QStringList progress = transcript.commands(QStringLiteral("Progress"));
    ASSERT_GE(progress.size(), 2);
    double last = -1;
    for (const QString& line : progress) {
        const double value = line.section(QLatin1Char(' '), 1).toDouble();
        EXPECT_GE(value, last);
        last = value;
    }
    EXPECT_EQ(progress.last(), QStringLiteral("Progress: 100"));
    EXPECT_EQ(transcript.commands(QStringLiteral("Finish_Message")),
              QStringList{QStringLiteral("Finish_Message: Moved 2 items to ") +
                          QFileInfo(m_other->path()).fileName()});
}

TEST_F(CrossFileSystemTest, FailedCopyKeepsTheOriginalAndLeavesNothingBehind)
{
    const QString folder = source(QStringLiteral("project"));
    writeFile(folder + QStringLiteral("/a.txt"), "a");
    writeFile(folder + QStringLiteral("/z.txt"), "z");
    // A socket cannot be copied, so the copy fails halfway through the folder.
    const QString socketPath = folder + QStringLiteral("/m.sock");
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const QByteArray encoded = QFile::encodeName(socketPath);
    ASSERT_LT(static_cast<size_t>(encoded.size()), sizeof address.sun_path);
    std::copy(encoded.begin(), encoded.end(), address.sun_path);
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ::close(fd);
    writeFile(source(QStringLiteral("fine.txt")), "fine");

    const Transcript transcript =
        run(MoveFiles, {folder, source(QStringLiteral("fine.txt"))}, m_other->path());

    EXPECT_EQ(transcript.exitCode, 0);
    const QString name = QFileInfo(m_other->path()).fileName();
    EXPECT_EQ(transcript.commands(QStringLiteral("Fail")),
              QStringList{QStringLiteral("Fail: Moved 1 of 2 items to ") + name +
                          QStringLiteral("[;nCannot move m.sock (socket files cannot be copied)")});
    EXPECT_TRUE(transcript.commands(QStringLiteral("Finish_Message")).isEmpty());
    // The original is whole, and neither a partial copy nor the claimed name is left.
    EXPECT_EQ(entries(folder), (QStringList{QStringLiteral("a.txt"), QStringLiteral("m.sock"),
                                            QStringLiteral("z.txt")}));
    EXPECT_EQ(readFile(folder + QStringLiteral("/z.txt")), QByteArrayLiteral("z"));
    EXPECT_EQ(entries(m_other->path()), QStringList{QStringLiteral("fine.txt")});
    EXPECT_FALSE(exists(source(QStringLiteral("fine.txt"))));
}

TEST_F(CrossFileSystemTest, OriginalThatCannotBeRemovedIsKeptWithItsCopy)
{
    const QString locked = writeFile(source(QStringLiteral("locked.txt")), "locked");
    // An immutable file cannot be deleted, not even by root.
    if (QProcess::execute(QStringLiteral("chattr"), {QStringLiteral("+i"), locked}) != 0) {
        GTEST_SKIP() << "needs chattr +i";
    }
    struct Unlock {
        QString path;
        ~Unlock() { QProcess::execute(QStringLiteral("chattr"), {QStringLiteral("-i"), path}); }
    } unlock{locked};

    const Transcript transcript = run(MoveFiles, {locked}, m_other->path());

    const QString name = QFileInfo(m_other->path()).fileName();
    const QString copy = m_other->filePath(QStringLiteral("locked.txt"));
    EXPECT_EQ(transcript.commands(QStringLiteral("Fail")),
              QStringList{QStringLiteral("Fail: locked.txt was copied to ") + name +
                          QStringLiteral(", but the original could not be removed (Operation "
                                         "not permitted)")});
    EXPECT_EQ(transcript.commands(QStringLiteral("Output_File")),
              QStringList{outputFileLine(copy)});
    EXPECT_EQ(readFile(locked), QByteArrayLiteral("locked"));
    EXPECT_EQ(readFile(copy), QByteArrayLiteral("locked"));
}

TEST_F(FileActionsTest, MovingAFolderIntoItselfOrAnItemOntoItselfIsRefused)
{
    const QString folder = source(QStringLiteral("photos"));
    writeFile(folder + QStringLiteral("/inside/x.jpg"), "x");
    writeFile(source(QStringLiteral("here.txt")), "here");

    Transcript transcript = run(MoveFiles, {folder}, folder + QStringLiteral("/inside"));
    EXPECT_EQ(transcript.commands(QStringLiteral("Fail")),
              QStringList{QStringLiteral("Fail: Cannot move photos into itself")});

    transcript = run(MoveFiles, {folder}, folder);
    EXPECT_EQ(transcript.commands(QStringLiteral("Fail")),
              QStringList{QStringLiteral("Fail: Cannot move photos into itself")});

    transcript = run(CopyFiles, {folder}, folder + QStringLiteral("/inside"));
    EXPECT_EQ(transcript.commands(QStringLiteral("Fail")),
              QStringList{QStringLiteral("Fail: Cannot copy photos into itself")});

    transcript = run(MoveFiles, {source(QStringLiteral("here.txt"))}, m_source);
    EXPECT_EQ(transcript.commands(QStringLiteral("Fail")),
              QStringList{QStringLiteral("Fail: here.txt is already in source")});

    EXPECT_EQ(entries(m_source),
              (QStringList{QStringLiteral("here.txt"), QStringLiteral("photos")}));
    EXPECT_EQ(entries(folder + QStringLiteral("/inside")), QStringList{QStringLiteral("x.jpg")});

    // Copying into the same folder makes a numbered copy.
    transcript = run(CopyFiles, {source(QStringLiteral("here.txt"))}, m_source);
    EXPECT_EQ(readFile(source(QStringLiteral("here 2.txt"))), QByteArrayLiteral("here"));
}

TEST_F(FileActionsTest, MissingOrUnusableDestinationFailsBeforeAnythingHappens)
{
    writeFile(source(QStringLiteral("a.txt")), "a");
    const QStringList items{source(QStringLiteral("a.txt"))};
    const QString missing = m_dir.filePath(QStringLiteral("gone"));

    Transcript transcript = run(CopyFiles, items, missing);
    EXPECT_EQ(transcript.lines(), QStringList{QStringLiteral("Fail: The destination folder ") +
                                              missing + QStringLiteral(" does not exist")});
    EXPECT_EQ(transcript.exitCode, 0);

    transcript = run(MoveFiles, items, source(QStringLiteral("a.txt")));
    EXPECT_EQ(transcript.lines(),
              QStringList{QStringLiteral("Fail: The destination ") +
                          source(QStringLiteral("a.txt")) + QStringLiteral(" is not a folder")});

    transcript = run(CopyFiles, items, QStringLiteral("relative/folder"));
    EXPECT_EQ(transcript.lines(),
              QStringList{
                  QStringLiteral("Fail: The destination relative/folder is not an absolute path")});

    transcript = run(MoveFiles, items, QString());
    EXPECT_EQ(transcript.lines(),
              QStringList{QStringLiteral("Fail: No destination folder is set for Move Files")});

    EXPECT_EQ(entries(m_source), QStringList{QStringLiteral("a.txt")});
    EXPECT_FALSE(exists(missing));
}

TEST_F(FileActionsTest, TextDropIsRefused)
{
    const QString taskFile =
        writeFile(m_dir.filePath(QStringLiteral("task-text")),
                  taskDescription(bundle(CopyFiles), QStringLiteral("dragged"),
                                  {{QStringLiteral("dragged_type"), QStringLiteral("text")},
                                   {QStringLiteral("path"), m_destination}},
                                  {QStringLiteral("some text")}));

    const Transcript transcript = runTask(taskFile);

    EXPECT_EQ(transcript.lines(),
              QStringList{QStringLiteral("Fail: Copy Files takes files and folders, not text")});
    EXPECT_TRUE(entries(m_destination).isEmpty());
}

TEST_F(FileActionsTest, PartialFailureSaysWhatWasDone)
{
    writeFile(source(QStringLiteral("one.txt")), "1");
    writeFile(source(QStringLiteral("three.txt")), "3");

    const Transcript transcript =
        run(CopyFiles, {source(QStringLiteral("one.txt")), source(QStringLiteral("two.txt")),
                        source(QStringLiteral("three.txt"))});

    EXPECT_EQ(transcript.commands(QStringLiteral("Fail")),
              QStringList{
                  QStringLiteral("Fail: Copied 2 of 3 items to dest[;ntwo.txt no longer exists")});
    EXPECT_EQ(transcript.commands(QStringLiteral("Progress")).last(),
              QStringLiteral("Progress: 100"));
    EXPECT_EQ(entries(m_destination),
              (QStringList{QStringLiteral("one.txt"), QStringLiteral("three.txt")}));
}

TEST_F(FileActionsTest, MoveFilesCopiesWhenTheDropAsksForACopy)
{
    writeFile(source(QStringLiteral("keep.txt")), "keep");

    const Transcript transcript =
        run(MoveFiles, {source(QStringLiteral("keep.txt"))}, m_destination,
            {{QStringLiteral("OPERATION"), QStringLiteral("NSDragOperationCopy")}});

    ASSERT_EQ(transcript.exitCode, 0);
    EXPECT_EQ(transcript.commands(QStringLiteral("Finish_Message")),
              QStringList{QStringLiteral("Finish_Message: Copied keep.txt to dest")});
    EXPECT_EQ(readFile(source(QStringLiteral("keep.txt"))), QByteArrayLiteral("keep"));
    EXPECT_EQ(readFile(destination(QStringLiteral("keep.txt"))), QByteArrayLiteral("keep"));
}

TEST_F(FileActionsTest, DestinationWithQuotesInItsPath)
{
    const QString folder = m_dir.filePath(QStringLiteral("my \"quoted\" folder"));
    ASSERT_TRUE(QDir().mkpath(folder));
    writeFile(source(QStringLiteral("say \"hi\".txt")), "hi");

    const Transcript transcript =
        run(CopyFiles, {source(QStringLiteral("say \"hi\".txt"))}, folder);

    ASSERT_EQ(transcript.exitCode, 0);
    EXPECT_EQ(readFile(folder + QStringLiteral("/say \"hi\".txt")), QByteArrayLiteral("hi"));
    EXPECT_EQ(transcript.commands(QStringLiteral("Finish_Message")),
              QStringList{
                  QStringLiteral("Finish_Message: Copied say \"hi\".txt to my \"quoted\" folder")});
}

TEST_F(FileActionsTest, RenameAndCopyUsesTheEnteredNames)
{
    writeFile(source(QStringLiteral("a.txt")), "a");
    writeFile(source(QStringLiteral("b.txt")), "b");
    writeFile(source(QStringLiteral("c.txt")), "c");
    writeFile(source(QStringLiteral("d")), "d");
    writeFile(destination(QStringLiteral("taken.txt")), "taken");

    // Names count the items from 0, with their quotes escaped; "c.txt" has none.
    const Transcript transcript =
        run(RenameCopyFiles,
            {source(QStringLiteral("a.txt")), source(QStringLiteral("b.txt")),
             source(QStringLiteral("c.txt")), source(QStringLiteral("d"))},
            m_destination,
            {{QStringLiteral("RENAMED_FILENAME_0"), QStringLiteral("first name.txt")},
             {QStringLiteral("RENAMED_FILENAME_1"), escapeQuotes(QStringLiteral("say \"b\".txt"))},
             {QStringLiteral("RENAMED_FILENAME_3"), QStringLiteral("taken.txt")}});

    ASSERT_EQ(transcript.exitCode, 0) << transcript.lines().join('\n').toStdString();
    EXPECT_EQ(readFile(destination(QStringLiteral("first name.txt"))), QByteArrayLiteral("a"));
    EXPECT_EQ(readFile(destination(QStringLiteral("say \"b\".txt"))), QByteArrayLiteral("b"));
    EXPECT_EQ(readFile(destination(QStringLiteral("c.txt"))), QByteArrayLiteral("c"));
    EXPECT_EQ(readFile(destination(QStringLiteral("taken 2.txt"))), QByteArrayLiteral("d"));
    EXPECT_EQ(readFile(destination(QStringLiteral("taken.txt"))), QByteArrayLiteral("taken"));
    EXPECT_EQ(
        transcript.commands(QStringLiteral("Begin_Message")),
        (QStringList{QStringLiteral("Begin_Message: Copying a.txt as first name.txt (1 of 4)"),
                     QStringLiteral("Begin_Message: Copying b.txt as say \"b\".txt (2 of 4)"),
                     QStringLiteral("Begin_Message: Copying c.txt (3 of 4)"),
                     QStringLiteral("Begin_Message: Copying d as taken.txt (4 of 4)")}));
    EXPECT_EQ(entries(m_source).size(), 4);
}

TEST_F(FileActionsTest, RenameRefusesUnusableNamesBeforeTouchingAnything)
{
    writeFile(source(QStringLiteral("a.txt")), "a");
    writeFile(source(QStringLiteral("b.txt")), "b");
    for (const QString& name :
         {QStringLiteral("sub/dir.txt"), QStringLiteral(".."), QStringLiteral(".")}) {
        const Transcript transcript =
            run(RenameMoveFiles, {source(QStringLiteral("a.txt")), source(QStringLiteral("b.txt"))},
                m_destination,
                {{QStringLiteral("RENAMED_FILENAME_0"), QStringLiteral("fine.txt")},
                 {QStringLiteral("RENAMED_FILENAME_1"), name}});
        EXPECT_EQ(transcript.lines(), QStringList{QStringLiteral("Fail: \"") + name +
                                                  QStringLiteral("\" cannot be used as a name")});
    }
    EXPECT_TRUE(entries(m_destination).isEmpty());
    EXPECT_EQ(entries(m_source), (QStringList{QStringLiteral("a.txt"), QStringLiteral("b.txt")}));
}

TEST_F(FileActionsTest, RenameAndMoveIntoTheSameFolderRenames)
{
    writeFile(source(QStringLiteral("draft.txt")), "draft");

    const Transcript transcript =
        run(RenameMoveFiles, {source(QStringLiteral("draft.txt"))}, m_source,
            {{QStringLiteral("RENAMED_FILENAME_0"), QStringLiteral("final.txt")}});

    ASSERT_EQ(transcript.exitCode, 0);
    EXPECT_EQ(entries(m_source), QStringList{QStringLiteral("final.txt")});
    EXPECT_EQ(
        transcript.commands(QStringLiteral("Finish_Message")),
        QStringList{QStringLiteral("Finish_Message: Moved draft.txt as final.txt to source")});
}

} // namespace
