#include "platform/ZipExtractor.h"

#include "tests/support/QtPrinting.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

// Archives are written by Python's zipfile, which keeps any name it is given; `add` sets the
// unix mode, `patch` rewrites the last entry's declared size in both headers. One run writes
// every archive of a test: each takes four arguments, the last being the code that fills it.
const char* const Writer = R"(
import os, subprocess, sys, zipfile
def add(name, data=b'x', mode=0o100644):
    info = zipfile.ZipInfo(name, (2020, 5, 17, 10, 30, 0))
    info.external_attr = mode << 16
    info.compress_type = zipfile.ZIP_DEFLATED
    z.writestr(info, data)
def rewrite(change):
    z.close()
    data = bytearray(open(path, 'rb').read())
    change(data)
    open(path, 'wb').write(data)
def patch(size):
    def change(b):
        local, central = b.rfind(b'PK\x03\x04'), b.rfind(b'PK\x01\x02')
        b[local + 22:local + 26] = size.to_bytes(4, 'little')
        b[central + 24:central + 28] = size.to_bytes(4, 'little')
    rewrite(change)
args = sys.argv[1:]
for i in range(0, len(args), 4):
    path, outside, scratch = args[i:i + 3]
    z = zipfile.ZipFile(path, 'w', zipfile.ZIP_DEFLATED)
    exec(args[i + 3])
    if z.fp: z.close()
)";

void makeZips(const QStringList& arguments)
{
    const QString python = QFileInfo::exists(QStringLiteral("/usr/bin/python3"))
                               ? QStringLiteral("/usr/bin/python3")
                               : QStringLiteral("python3");
    QProcess process;
    process.start(python, QStringList{QStringLiteral("-c"), QString::fromUtf8(Writer)} + arguments);
    ASSERT_TRUE(process.waitForFinished(120000));
    ASSERT_EQ(process.exitCode(), 0) << process.readAllStandardError().toStdString();
}

// Every path under `root` with its size, so a stray byte anywhere shows.
QStringList snapshot(const QString& root)
{
    QStringList seen;
    QDirIterator it(root, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QFileInfo info(it.next());
        seen << QStringLiteral("%1 %2").arg(info.filePath()).arg(info.size());
    }
    seen.sort();
    return seen;
}

TEST(ZipExtractor, HostileArchivesInstallNothing)
{
    const ZipExtractor::Limits small{100, 1000};
    struct Row {
        const char* name;
        const char* body;
        const char* error;
        ZipExtractor::Limits limits = {};
    } rows[] = {
        {"parent", "add('ok.txt'); add('../evil')", "\"../evil\" points outside"},
        {"nested parent", "add('a/ok'); add('a/../../evil')", "\"a/../../evil\" points outside"},
        {"backslash parent", "add('ok'); add('..\\\\evil')", "points outside"},
        {"absolute", "add('ok'); add(outside + '/evil')", "has an absolute path"},
        {"drive letter", "add('ok'); add('C:\\\\evil')", "has an absolute path"},
        {"symlink", "add('link', outside.encode(), 0o120777); add('link/evil')",
         "\"link\" is a symbolic link"},
        {"duplicate", "add('d/a.txt'); add('d/a.txt', b'y')", "\"d/a.txt\" is in the archive more"},
        {"duplicate normalised", "add('./d/'); add('d')", "\"d\" is in the archive more"},
        {"file as folder", "add('d'); add('d/x')", "lies inside \"d\", which is a file"},
        {"encrypted",
         "z.close(); os.remove(path); open(scratch + '/s.txt', 'w').write('secret')\n"
         "subprocess.run(['zip', '-q', '-P', 'pw', path, 's.txt'], cwd=scratch, check=True)",
         "\"s.txt\" is encrypted"},
        {"ratio bomb", "add('ok'); add('zeros', bytes(20 << 20))", "over 100 times the size"},
        {"total", "add('ok'); add('big', os.urandom(2000))", "more than 1000 bytes in all", small},
        {"truncated",
         "add('a', os.urandom(5000)); rewrite(lambda b: b.__delitem__(slice(3000, None)))",
         "The archive is not a valid zip archive."},
        {"size understated", "add('ok'); add('lie', bytes(100000)); patch(10)",
         "\"lie\" is damaged", small},
        {"size overstated", "add('ok'); add('lie', b'short'); patch(500)", "\"lie\" is damaged"},
    };
    // Each row gets a sandbox holding the destination and a folder beside it.
    QTemporaryDir archives;
    QTemporaryDir sandboxes;
    QStringList arguments;
    for (const Row& row : rows) {
        const QString sandbox = sandboxes.filePath(QString::fromUtf8(row.name));
        ASSERT_TRUE(QDir().mkpath(sandbox + QStringLiteral("/dest")) &&
                    QDir().mkpath(sandbox + QStringLiteral("/outside")));
        const QString scratch = archives.filePath(QString::fromUtf8(row.name));
        ASSERT_TRUE(QDir().mkpath(scratch));
        arguments << scratch + QStringLiteral(".zip") << sandbox + QStringLiteral("/outside")
                  << scratch << QString::fromUtf8(row.body);
    }
    makeZips(arguments);

    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const QString sandbox = sandboxes.filePath(QString::fromUtf8(row.name));
        const QString dest = sandbox + QStringLiteral("/dest");
        const QString archive = archives.filePath(QString::fromUtf8(row.name) + ".zip");
        const QStringList before = snapshot(sandbox);

        const ZipExtractor::Result result =
            ZipExtractor::extract(archive, dest, nullptr, row.limits);
        EXPECT_FALSE(result.ok);
        EXPECT_TRUE(result.error.contains(QString::fromUtf8(row.error))) << result.error;
        EXPECT_TRUE(result.entries.isEmpty());
        EXPECT_EQ(snapshot(sandbox), before);
    }
}

TEST(ZipExtractor, UnpacksFoldersFilesModesAndTimes)
{
    QTemporaryDir dir;
    const QString archive = dir.filePath(QStringLiteral("a.zip"));
    makeZips({archive,
              {},
              {},
              "add('B.skbundle/', b'', 0o40755); add('B.skbundle/lib/deep/x.rb', b'puts 1')\n"
              "add('B.skbundle/run.sh', b'#!/bin/sh\\n', 0o100755); add('./B.skbundle/icon.png')"});
    const QString dest = dir.filePath(QStringLiteral("dest"));
    ASSERT_TRUE(QDir().mkpath(dest));

    const ZipExtractor::Result result = ZipExtractor::extract(archive, dest);
    ASSERT_TRUE(result.ok) << result.error;
    EXPECT_EQ(result.entries, (QStringList{"B.skbundle/", "B.skbundle/lib/deep/x.rb",
                                           "B.skbundle/run.sh", "B.skbundle/icon.png"}));
    QFile script(dest + QStringLiteral("/B.skbundle/lib/deep/x.rb"));
    ASSERT_TRUE(script.open(QIODevice::ReadOnly));
    EXPECT_EQ(script.readAll(), "puts 1");
    const auto mode = [&](const char* name) {
        struct stat info {};
        ::stat(QFile::encodeName(dest + u'/' + QLatin1String(name)).constData(), &info);
        return info.st_mode & 07777;
    };
    EXPECT_EQ(mode("B.skbundle/run.sh"), 0755u);
    EXPECT_EQ(mode("B.skbundle/lib/deep/x.rb"), 0644u);
    EXPECT_EQ(mode("B.skbundle/lib"), 0755u);
    EXPECT_EQ(QFileInfo(script).lastModified(), QDateTime(QDate(2020, 5, 17), QTime(10, 30)));
}

TEST(ZipExtractor, NeverFollowsALinkInTheDestinationAndStopsWhenCancelled)
{
    QTemporaryDir dir;
    const QString archive = dir.filePath(QStringLiteral("a.zip"));
    makeZips({archive, {}, {}, "add('sub/evil')"});
    const QString dest = dir.filePath(QStringLiteral("dest"));
    const QString outside = dir.filePath(QStringLiteral("outside"));
    ASSERT_TRUE(QDir().mkpath(dest) && QDir().mkpath(outside));
    ASSERT_TRUE(QFile::link(outside, dest + QStringLiteral("/sub")));

    ZipExtractor::Result result = ZipExtractor::extract(archive, dest);
    EXPECT_FALSE(result.ok);
    EXPECT_TRUE(result.error.contains(QStringLiteral("\"sub/evil\" could not be written")))
        << result.error;
    EXPECT_TRUE(QDir(outside).isEmpty());

    QFile::remove(dest + QStringLiteral("/sub"));
    const std::atomic_bool cancelled = true;
    result = ZipExtractor::extract(archive, dest, &cancelled);
    EXPECT_TRUE(!result.ok && result.cancelled);
    EXPECT_TRUE(QDir(dest).isEmpty());
}

} // namespace
