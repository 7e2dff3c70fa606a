#include "platform/ZipWriter.h"

#include "tests/support/TestHome.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRandomGenerator>

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

QByteArray text(qsizetype size)
{
    QByteArray out;
    for (int line = 0; out.size() < size; ++line)
        out += "line " + QByteArray::number(line) + " of a log that repeats itself\n";
    return out.left(size);
}

QByteArray noise(qsizetype size)
{
    QByteArray out(size, Qt::Uninitialized);
    QRandomGenerator generator(size);
    for (auto& byte : out)
        byte = char(generator.generate());
    return out;
}

// Runs unzip in a UTF-8 locale, so that names come out as they went in.
QByteArray unzipOutput(const QStringList& arguments, int* status = nullptr)
{
    QProcess unzip;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("LC_ALL", "C.UTF-8");
    unzip.setProcessEnvironment(environment);
    unzip.start("unzip", arguments);
    const bool finished = unzip.waitForFinished(120000);
    if (status)
        *status = finished && unzip.exitStatus() == QProcess::NormalExit ? unzip.exitCode() : -1;
    return unzip.readAllStandardOutput();
}

int unzip(const QStringList& arguments)
{
    int status = -1;
    unzipOutput(arguments, &status);
    return status;
}

// zipinfo's lines by entry name: "-rwxr-xr-x  3.0 unx  42 tx  20 defN 24-Jan-01 12:00 name".
QMap<QString, QStringList> listing(const QString& archive)
{
    QMap<QString, QStringList> entries;
    for (const QString& line : QString::fromUtf8(unzipOutput({"-Z", "-l", archive})).split('\n')) {
        const QStringList fields = line.split(' ', Qt::SkipEmptyParts);
        if (fields.size() >= 10 && (line.startsWith('-') || line.startsWith('d')))
            entries.insert(fields.mid(9).join(' '), fields);
    }
    return entries;
}

class ZipWriterTest : public testing::Test {
protected:
    QString archive() const { return m_home.path() + "/out/files.zip"; }
    void SetUp() override { QDir().mkpath(m_home.path() + "/out"); }
    TestHome m_home;
};

TEST_F(ZipWriterTest, AFolderRoundTripsWithMethodsModesTimesAndEmptyFolders)
{
    struct Row {
        const char* name;
        QByteArray contents;
        const char* method;
        const char* mode;
    };
    const Row rows[] = {
        {"notes.txt", text(5000), "defN", "-rw-r--r--"},
        {"big/log.txt", text(3 << 20) + noise(100000), "defN", "-rw-r--r--"},
        {"photo.JPG", text(20000), "stor", "-rw-r--r--"},
        {"random.bin", noise(3000), "stor", "-rw-r--r--"},
        {"empty", {}, "stor", "-rw-r--r--"},
        {"run.sh", "#!/bin/sh\necho hello hello hello hello\n", "defN", "-rwxr-xr-x"},
        {".hidden/é.txt", text(300), "defN", "-rw-r--r--"},
    };
    const QString folder = m_home.path() + "/Proj";
    for (const Row& row : rows) {
        const QString path = m_home.writeFile("Proj/" + QString::fromUtf8(row.name), row.contents);
        QFile::setPermissions(path, QString(row.mode) == "-rwxr-xr-x" ? QFile::Permissions(0x7755)
                                                                      : QFile::Permissions(0x6644));
    }
    QDir().mkpath(folder + "/void");
    const QDateTime old = QDateTime::fromSecsSinceEpoch(1500000001);
    QFile touched(folder + "/notes.txt");
    ASSERT_TRUE(touched.open(QIODevice::ReadWrite));
    touched.setFileTime(old, QFileDevice::FileModificationTime);
    touched.close();

    qint64 lastDone = -1, lastTotal = -1;
    const auto result = ZipWriter::write(archive(), {folder}, [&](qint64 done, qint64 total) {
        lastDone = done;
        lastTotal = total;
    });
    ASSERT_TRUE(result.ok) << result.error;
    EXPECT_EQ(lastDone, lastTotal);
    EXPECT_GT(lastTotal, 3 << 20);

    const auto entries = listing(archive());
    EXPECT_EQ(entries.size(), std::size(rows) + 4); // Proj/ big/ .hidden/ void/
    EXPECT_TRUE(entries.contains("Proj/void/"));
    for (const Row& row : rows) {
        const auto fields = entries.value("Proj/" + QString::fromUtf8(row.name));
        ASSERT_EQ(fields.size(), 10) << row.name;
        EXPECT_EQ(fields.at(0), row.mode) << row.name;
        EXPECT_EQ(fields.at(2), "unx") << row.name;
        EXPECT_EQ(fields.at(6), row.method) << row.name;
    }

    const QString out = m_home.path() + "/unpacked";
    ASSERT_EQ(unzip({"-q", archive(), "-d", out}), 0);
    for (const Row& row : rows) {
        QFile file(out + "/Proj/" + QString::fromUtf8(row.name));
        ASSERT_TRUE(file.open(QIODevice::ReadOnly)) << row.name;
        EXPECT_TRUE(file.readAll() == row.contents) << row.name;
    }
    EXPECT_TRUE(QFileInfo(out + "/Proj/void").isDir());
    EXPECT_EQ(QFileInfo(out + "/Proj/notes.txt").lastModified(), old);
    EXPECT_TRUE(QFileInfo(out + "/Proj/run.sh").isExecutable());
}

TEST_F(ZipWriterTest, FilesFromSeveralFoldersKeepTheirNamesWithoutClashing)
{
    const QStringList sources = {
        m_home.writeFile("a/report.tar.gz", "one"), m_home.writeFile("b/report.tar.gz", "two"),
        m_home.writeFile("c/report.tar.gz", "three"), m_home.writeFile("a/Makefile", "all:\n")};
    ASSERT_TRUE(ZipWriter::write(archive(), sources).ok);
    EXPECT_EQ(listing(archive()).keys(),
              QStringList({"Makefile", "report 2.tar.gz", "report 3.tar.gz", "report.tar.gz"}));
    EXPECT_EQ(unzip({"-tq", archive()}), 0);
}

TEST_F(ZipWriterTest, CancellingRemovesTheArchive)
{
    const QString big = m_home.writeFile("big.txt", text(8 << 20));
    std::atomic_bool cancelled = false;
    const auto result = ZipWriter::write(
        archive(), {big}, [&](qint64, qint64) { cancelled = true; }, &cancelled);
    EXPECT_TRUE(result.cancelled);
    EXPECT_FALSE(result.ok);
    EXPECT_FALSE(QFile::exists(archive()));
}

TEST_F(ZipWriterTest, AnUnreadableSourceFailsWithItsPathAndLeavesNoArchive)
{
    const QString readable = m_home.writeFile("ok.txt", "fine");
    m_home.writeFile("links/ok.txt", "fine");
    QFile::link(m_home.path() + "/gone", m_home.path() + "/links/dangling");
    const QString locked = m_home.writeFile("locked/secret.txt", "x");
    QFile::setPermissions(locked, {});
    const std::pair<QString, QString> rows[] = {
        {m_home.path() + "/missing.txt", m_home.path() + "/missing.txt"},
        {m_home.path() + "/links", m_home.path() + "/links/dangling"},
        {m_home.path() + "/locked", locked},
    };
    for (const auto& [source, named] : rows) {
        if (named == locked && ::geteuid() == 0)
            continue; // root reads everything
        const auto result = ZipWriter::write(archive(), {readable, source});
        EXPECT_FALSE(result.ok) << source;
        EXPECT_TRUE(result.error.contains('"' + named + "\":")) << result.error;
        EXPECT_FALSE(QFile::exists(archive())) << source;
    }
}

TEST(ZipWriterRulesTest, CompressedKindsAreStoredAndLargeEntriesUseZip64)
{
    const std::pair<const char*, bool> names[] = {
        {"a.jpg", true},    {"B.PNG", true},      {"c.tar.gz", true}, {"d.docx", true},
        {"e.mp4", true},    {"f.pdf", false},     {"g.txt", false},   {"noext", false},
        {"h.zip/i", false}, {"/x/.config", false}};
    for (const auto& [name, stored] : names)
        EXPECT_EQ(ZipWriter::isAlreadyCompressed(name), stored) << name;
    const std::pair<qint64, bool> sizes[] = {
        {0, false}, {0xF0000000ll, false}, {0xFFFFFFFFll, true}, {qint64(5) << 30, true}};
    for (const auto& [size, zip64] : sizes)
        EXPECT_EQ(ZipWriter::needsZip64(size), zip64) << size;
}

// Minutes of deflating on a busy machine, so only on request.
TEST_F(ZipWriterTest, AnEntryOver4GiBUsesZip64AndKeepsItsUnixMode)
{
    if (qEnvironmentVariableIsEmpty("SKELVO_SLOW_TESTS"))
        GTEST_SKIP() << "set SKELVO_SLOW_TESTS=1 to zip a 4.1 GiB file";
    QFile sparse(m_home.path() + "/disk.img");
    ASSERT_TRUE(sparse.open(QIODevice::WriteOnly));
    ASSERT_TRUE(sparse.resize((qint64(41) << 30) / 10));
    sparse.close();
    QFile::setPermissions(sparse.fileName(), QFile::Permissions(0x7755));
    ASSERT_TRUE(ZipWriter::write(archive(), {sparse.fileName()}).ok);
    const QStringList fields = listing(archive()).value("disk.img");
    ASSERT_EQ(fields.size(), 10);
    EXPECT_EQ(fields.at(0), "-rwxr-xr-x");
    EXPECT_EQ(fields.at(2), "unx");
    EXPECT_EQ(fields.at(3), QString::number(sparse.size()));
    EXPECT_EQ(unzip({"-tq", archive()}), 0);
}

} // namespace
