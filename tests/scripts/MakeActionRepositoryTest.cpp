#include "platform/ZipExtractor.h"
#include "tests/support/QtPrinting.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

struct ScriptRun {
    int exitCode = -1;
    QString output;
};

ScriptRun runScript(const QStringList& arguments)
{
    const QString python = QFileInfo::exists(QStringLiteral("/usr/bin/python3"))
                               ? QStringLiteral("/usr/bin/python3")
                               : QStringLiteral("python3");
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(python, QStringList{QStringLiteral(MAKE_ACTION_REPOSITORY)} + arguments);
    if (!process.waitForFinished(60000))
        return {};
    return {process.exitCode(), QString::fromUtf8(process.readAll())};
}

void write(const QString& path, const QByteArray& data, bool executable = false)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(data);
    file.close();
    if (executable)
        file.setPermissions(file.permissions() | QFile::ExeOwner);
}

QByteArray header(const char* fields)
{
    return QByteArray("#!/usr/bin/env ruby\n# Skelvo Action Info\n") + fields + "\n\nputs 1\n";
}

QByteArray readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(missing)");
}

TEST(MakeActionRepository, BuildsReproducibleArchivesAndTheManifest)
{
    QTemporaryDir dir;
    const QString source = dir.filePath(QStringLiteral("src"));
    write(source + "/first.skbundle/action.rb",
          header("# Name: Alpha\n# Version: 2.10\n# UniqueID: com.example.alpha\n"
                 "# Description: Tabs\there.\\nTwo lines"),
          true);
    write(source + "/first.skbundle/lib/deep/helper.rb", "def help; end\n");
    write(source + "/first.skbundle/.git/config", "not published\n");
    write(source + "/Beta.skbundle/action.py",
          header("# Name: Beta\n# Version: 1.0\n# Description: Python"));
    write(source + "/Gamma.skelvo", header("# Name: Gamma\n# Description: Single file"));
    write(source + "/notes.txt", "not an action\n");
    const QString out = dir.filePath(QStringLiteral("out"));
    const QString repo = out + QStringLiteral("/actions/skelvo5-actions-zipped/");

    const ScriptRun run = runScript({source, out});
    ASSERT_EQ(run.exitCode, 0) << run.output;
    EXPECT_EQ(QDir(repo).entryList(QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot | QDir::Hidden),
              (QStringList{"Alpha.skbundle", "Beta.skbundle", "Gamma.skbundle", "versions.txt"}));
    const QByteArray manifest = readAll(repo + "versions.txt");
    const auto md5 = [&](const char* name) {
        return QCryptographicHash::hash(readAll(repo + name), QCryptographicHash::Md5).toHex();
    };
    EXPECT_EQ(manifest, "Alpha\t2.10\tcom.example.alpha\t" + md5("Alpha.skbundle") +
                            "\tTabs here.\\nTwo lines\n"
                            "Beta\t1.0\t\t" +
                            md5("Beta.skbundle") +
                            "\tPython\n"
                            "Gamma\t\t\t" +
                            md5("Gamma.skbundle") + "\tSingle file\n");

    const struct {
        const char* archive;
        QStringList entries;
        const char* script;
        QString original;
    } rows[] = {
        {"Alpha.skbundle",
         {"Alpha.skbundle/", "Alpha.skbundle/action.rb", "Alpha.skbundle/lib/",
          "Alpha.skbundle/lib/deep/", "Alpha.skbundle/lib/deep/helper.rb"},
         "Alpha.skbundle/action.rb",
         source + "/first.skbundle/action.rb"},
        {"Beta.skbundle",
         {"Beta.skbundle/", "Beta.skbundle/action.py"},
         "Beta.skbundle/action.py",
         source + "/Beta.skbundle/action.py"},
        {"Gamma.skbundle",
         {"Gamma.skbundle/", "Gamma.skbundle/action.rb"},
         "Gamma.skbundle/action.rb",
         source + "/Gamma.skelvo"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.archive);
        QTemporaryDir dest;
        const ZipExtractor::Result result = ZipExtractor::extract(repo + row.archive, dest.path());
        ASSERT_TRUE(result.ok) << result.error;
        EXPECT_EQ(result.entries, row.entries);
        EXPECT_EQ(readAll(dest.filePath(row.script)), readAll(row.original));
    }
    QTemporaryDir alpha;
    ZipExtractor::extract(repo + "Alpha.skbundle", alpha.path());
    EXPECT_TRUE(QFileInfo(alpha.filePath("Alpha.skbundle/action.rb")).isExecutable());
    EXPECT_FALSE(QFileInfo(alpha.filePath("Alpha.skbundle/lib/deep/helper.rb")).isExecutable());

    // A second build over the first gives the same archives, whatever the files' times.
    QFile touched(source + "/first.skbundle/action.rb");
    ASSERT_TRUE(touched.open(QIODevice::ReadWrite));
    touched.setFileTime(QDateTime(QDate(2001, 2, 3), QTime(4, 5)), QFile::FileModificationTime);
    touched.close();
    ASSERT_EQ(runScript({source, out}).exitCode, 0);
    EXPECT_EQ(readAll(repo + "versions.txt"), manifest);
}

TEST(MakeActionRepository, RefusesBadArgumentsAndActionsWithoutANameOrTwice)
{
    const struct {
        const char* name;
        QStringList arguments;
        const char* action; // written into the source folder as action.rb of a bundle
        int exitCode;
        const char* output;
    } rows[] = {
        {"help", {"-h"}, nullptr, 0, "usage: make-action-repository"},
        {"no arguments", {}, nullptr, 2, "usage: make-action-repository"},
        {"missing source", {"SRC/none", "OUT"}, nullptr, 1, "none: not a folder"},
        {"no name", {"SRC", "OUT"}, "# Description: x", 1, "has no Name in its header"},
        {"unusable name", {"SRC", "OUT"}, "# Name: a/b", 1, "cannot be a file name"},
        {"same name twice", {"SRC", "OUT"}, "# Name: Twice", 1, "is also used by"},
        {"empty source", {"SRC", "OUT"}, "", 1, "holds no action bundles"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        QTemporaryDir dir;
        const QString source = dir.filePath(QStringLiteral("src"));
        QDir().mkpath(source);
        if (row.action && *row.action) {
            write(source + "/one.skbundle/action.rb", header(row.action));
            write(source + "/two.skelvo", header("# Name: Twice"));
        }
        QStringList arguments = row.arguments;
        arguments.replaceInStrings(QStringLiteral("SRC"), source);
        arguments.replaceInStrings(QStringLiteral("OUT"), dir.filePath(QStringLiteral("out")));
        const ScriptRun run = runScript(arguments);
        EXPECT_EQ(run.exitCode, row.exitCode) << run.output;
        EXPECT_TRUE(run.output.contains(QString::fromUtf8(row.output))) << run.output;
        if (row.exitCode != 0) {
            EXPECT_FALSE(QFileInfo::exists(dir.filePath(QStringLiteral("out/actions"))));
        }
    }
    EXPECT_TRUE(QFileInfo(QStringLiteral(MAKE_ACTION_REPOSITORY)).isExecutable());
}

} // namespace
