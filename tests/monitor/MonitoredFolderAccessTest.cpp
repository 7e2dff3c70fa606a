// The monitored folder's bookmark resolved against what happened to the folder, and the
// output registry of one monitored run.
#include "monitor/MonitoredFolderAccess.h"

#include "monitor/FolderMonitorActionContext.h"
#include "tests/support/TestHome.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

namespace {

using Outcome = MonitoredFolderAccess::Outcome;

TEST(MonitoredFolderAccessTest, FollowsARenameAndNoticesAReplacement)
{
    const struct {
        const char* what;
        std::function<void(const QString& folder)> change;
        Outcome outcome;
        const char* pathNow; // relative to the home
    } rows[] = {
        {"untouched", [](const QString&) {}, Outcome::Same, "In"},
        {"renamed", [](const QString& f) { QDir().rename(f, f + " renamed"); }, Outcome::Moved,
         "In renamed"},
        {"replaced",
         [](const QString& f) {
             // Kept elsewhere, so the new folder cannot get its inode back.
             QDir().rename(f, f + QStringLiteral("/../Other/In"));
             QDir().mkpath(f);
         },
         Outcome::Replaced, "In"},
        {"removed", [](const QString& f) { QDir(f).removeRecursively(); }, Outcome::Missing, "In"},
        {"a file in its place",
         [](const QString& f) {
             QDir(f).removeRecursively();
             QFile file(f);
             (void)file.open(QIODevice::WriteOnly);
         },
         Outcome::Missing, "In"},
    };
    for (const auto& row : rows) {
        TestHome home;
        MonitoredFolder folder;
        folder.path = home.path() + QStringLiteral("/In");
        QDir().mkpath(folder.path);
        QDir().mkpath(home.path() + QStringLiteral("/Other"));
        folder.bookmark = FileBookmark::create(folder.path).value();
        row.change(folder.path);
        const MonitoredFolderAccess access = MonitoredFolderAccess::open(folder);
        EXPECT_EQ(access.outcome(), row.outcome) << row.what;
        EXPECT_EQ(access.path(), home.path() + u'/' + QString::fromLatin1(row.pathNow)) << row.what;
        EXPECT_EQ(access.identity(),
                  FileIdentity::of(access.path()).has_value() && row.outcome != Outcome::Missing
                      ? FileIdentity::of(access.path())
                      : std::nullopt)
            << row.what;
        EXPECT_EQ(access.bookmark().isEmpty(), row.outcome == Outcome::Missing) << row.what;
    }
}

TEST(FolderMonitorActionContextTest, HandsAbsoluteOutputsOverOnceAtTheEnd)
{
    TestHome home;
    const QString early = home.writeFile(QStringLiteral("early.txt"), "x");
    const QString late = home.path() + QStringLiteral("/late.txt");
    QList<QSet<FileIdentity>> handed;
    FolderMonitorActionContext context(
        home.path(), [&](const QSet<FileIdentity>& outputs) { handed << outputs; });
    context.registerOutputAtPath(early);
    context.registerOutputAtPath(QStringLiteral("early.txt")); // relative: ignored
    context.registerOutputAtPath(late);                        // not written yet
    EXPECT_EQ(context.outputs(), QSet<FileIdentity>{*FileIdentity::of(early)});
    home.writeFile(QStringLiteral("late.txt"), "y");
    context.finish();
    context.finish();
    ASSERT_EQ(handed.size(), 1);
    EXPECT_EQ(handed[0], (QSet<FileIdentity>{*FileIdentity::of(early), *FileIdentity::of(late)}));
}

} // namespace
