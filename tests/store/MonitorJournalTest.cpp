// The folder monitor's journal in a temporary file, reopened to prove what survives.
#include "store/MonitorJournal.h"

#include "tests/support/TestHome.h"

#include <QDir>

#include <gtest/gtest.h>

namespace {

class MonitorJournalTest : public testing::Test {
protected:
    TestHome home;
    QString path = QDir(home.path()).filePath(QStringLiteral("journal.sqlite"));
    QUuid folder = QUuid::createUuid();
    QUuid other = QUuid::createUuid();
};

TEST_F(MonitorJournalTest, IdentitiesAreKeptPerFolderAndReplacedWhole)
{
    // An inode above 2^63 must survive the signed SQLite integer.
    const FileIdentity big{42, 0xFFFFFFFFFFFFFFF0ull};
    {
        MonitorJournal journal(path);
        ASSERT_TRUE(journal.addKnownIdentities(folder, {{1, 10}, {1, 11}, big, {1, 10}}));
        ASSERT_TRUE(journal.addKnownIdentities(other, {{2, 20}}));
    }
    MonitorJournal journal(path);
    EXPECT_EQ(journal.knownIdentities(folder), (QSet<FileIdentity>{{1, 10}, {1, 11}, big}));
    ASSERT_TRUE(journal.replaceKnownIdentities(folder, {{3, 30}}));
    EXPECT_EQ(journal.knownIdentities(folder), (QSet<FileIdentity>{{3, 30}}));
    EXPECT_EQ(journal.knownIdentities(other), (QSet<FileIdentity>{{2, 20}}));
}

TEST_F(MonitorJournalTest, WaitingBatchesSurviveAReopenOldestFirst)
{
    const QDateTime now = QDateTime::currentDateTimeUtc();
    const MonitorJournal::Waiting later{QUuid::createUuid(), folder, {"/w/b"}, {7}, now};
    const MonitorJournal::Waiting earlier{
        QUuid::createUuid(), folder, {"/w/a", "/w/a 2"}, {3, 4}, now.addSecs(-60)};
    {
        MonitorJournal journal(path);
        ASSERT_TRUE(journal.addWaiting(later));
        ASSERT_TRUE(journal.addWaiting(earlier));
    }
    MonitorJournal journal(path);
    const QList<MonitorJournal::Waiting> waiting = journal.waiting(folder);
    ASSERT_EQ(waiting.size(), 2);
    EXPECT_EQ(waiting[0].batchId, earlier.batchId);
    EXPECT_EQ(waiting[0].paths, earlier.paths);
    EXPECT_EQ(waiting[0].actionIds, earlier.actionIds);
    EXPECT_EQ(waiting[0].since, earlier.since);
    ASSERT_TRUE(journal.removeWaiting(earlier.batchId));
    ASSERT_EQ(journal.waiting(folder).size(), 1);
    EXPECT_EQ(journal.waiting(folder)[0].batchId, later.batchId);
    EXPECT_TRUE(journal.waiting(other).isEmpty());
}

TEST_F(MonitorJournalTest, KeepsTheLastHundredRunsPerFolderNewestFirst)
{
    MonitorJournal journal(path);
    const QDateTime start = QDateTime::currentDateTimeUtc();
    for (int i = 0; i < 105; ++i) {
        ASSERT_TRUE(journal.addRun(
            folder,
            {start.addSecs(i), {QString::number(i)}, {"Copy"}, QStringLiteral("Completed")}));
    }
    ASSERT_TRUE(journal.addRun(other, {start, {"x"}, {}, QStringLiteral("Completed")}));
    const QList<MonitorJournal::Run> all = journal.runs(folder, 1000);
    ASSERT_EQ(all.size(), 100);
    EXPECT_EQ(all.first().paths, QStringList{"104"});
    EXPECT_EQ(all.last().paths, QStringList{"5"});
    EXPECT_EQ(journal.runs(folder, 3).size(), 3);

    ASSERT_TRUE(journal.forgetFolder(folder));
    EXPECT_TRUE(journal.runs(folder, 10).isEmpty());
    EXPECT_EQ(journal.runs(other, 10).size(), 1);
}

} // namespace
