#include "store/GridDatabase.h"
#include "tests/store/StoreTestSupport.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>
#include <QRandomGenerator>
#include <QSet>

#include <csignal>
#include <map>

namespace {

// What the writers reported, and what therefore must be in the file.
struct Expectation {
    std::map<qint64, QString> actions; // id -> "name n"
    QSet<qint64> deleted;
    // Begun but never reported: either outcome is fine for these.
    QSet<qint64> inFlightDeletes;
    QSet<qint64> inFlightSeparations;
    std::map<qint64, std::pair<qint64, QString>> items; // id -> dropbar, text
    QSet<QString> grids;
    int commits = 0;

    void read(const QByteArray& output)
    {
        QString pendingDelete;
        QString pendingSeparation;
        for (const QByteArray& raw : output.split('\n')) {
            const QStringList f = QString::fromUtf8(raw).split(QLatin1Char(' '));
            if (f.size() < 2) {
                continue;
            }
            if (f.at(0) == QLatin1String("begin") && f.at(1) == QLatin1String("delete")) {
                pendingDelete = f.at(2);
            } else if (f.at(0) == QLatin1String("begin") && f.at(1) == QLatin1String("separate")) {
                pendingSeparation = f.at(2);
            } else if (f.at(0) == QLatin1String("commit")) {
                ++commits;
                if (f.at(1) == QLatin1String("grid")) {
                    grids.insert(f.at(5));
                } else if (f.at(1) == QLatin1String("action")) {
                    // Row ids of deleted actions are handed out again.
                    actions[f.at(2).toLongLong()] = f.at(3) + QLatin1Char(' ') + f.at(4);
                    deleted.remove(f.at(2).toLongLong());
                    inFlightDeletes.remove(f.at(2).toLongLong());
                } else if (f.at(1) == QLatin1String("delete")) {
                    deleted.insert(f.at(2).toLongLong());
                    actions.erase(f.at(2).toLongLong());
                    pendingDelete.clear();
                } else if (f.at(1) == QLatin1String("item")) {
                    items[f.at(2).toLongLong()] = {f.at(3).toLongLong(), f.at(4)};
                    inFlightSeparations.remove(f.at(2).toLongLong());
                } else if (f.at(1) == QLatin1String("separate")) {
                    items[f.at(2).toLongLong()].first = f.at(3).toLongLong();
                    pendingSeparation.clear();
                }
            }
        }
        if (!pendingDelete.isEmpty()) {
            inFlightDeletes.insert(pendingDelete.toLongLong());
        }
        if (!pendingSeparation.isEmpty()) {
            inFlightSeparations.insert(pendingSeparation.toLongLong());
        }
    }
};

class CrashTest : public StoreTest {
protected:
    void SetUp() override
    {
        StoreTest::SetUp();
        loadInitialDatabase();
        db().vacuum();
        GridDatabase::reopenShared(); // the test process keeps no connection open
    }

    QProcess* startWriter(const QStringList& arguments)
    {
        auto* process = new QProcess;
        m_processes.emplace_back(process);
        process->setProgram(QStringLiteral(STORE_WRITER));
        process->setArguments(arguments);
        process->start();
        EXPECT_TRUE(process->waitForStarted(10000));
        return process;
    }

    void verify(const Expectation& expected)
    {
        EXPECT_EQ(sqlValue(dbPath(), QStringLiteral("PRAGMA integrity_check")),
                  QStringLiteral("ok"));
        const QStringList names = sqlColumn(dbPath(), QStringLiteral("SELECT name FROM grids"));
        for (const QString& tag : expected.grids) {
            EXPECT_TRUE(names.contains(QStringLiteral("grid-") + tag)) << tag.toStdString();
        }
        for (const auto& [id, nameAndN] : expected.actions) {
            if (expected.inFlightDeletes.contains(id)) {
                continue;
            }
            const QStringList parts = nameAndN.split(QLatin1Char(' '));
            EXPECT_EQ(sqlValue(dbPath(),
                               QStringLiteral("SELECT name FROM actions WHERE id = %1").arg(id)),
                      parts.at(0));
            EXPECT_EQ(
                sqlValue(dbPath(), QStringLiteral("SELECT variable_value FROM action_variables "
                                                  "WHERE action_id = %1 AND variable_name = 'n'")
                                       .arg(id)),
                parts.at(1));
            EXPECT_EQ(sqlValue(dbPath(), QStringLiteral("SELECT length(variable_value_blob) FROM "
                                                        "action_variables WHERE action_id = %1 AND "
                                                        "variable_name = 'b'")
                                             .arg(id)),
                      QStringLiteral("64"));
        }
        for (const qint64 id : expected.deleted) {
            EXPECT_EQ(
                sqlValue(dbPath(),
                         QStringLiteral("SELECT COUNT(*) FROM actions WHERE id = %1").arg(id)),
                QStringLiteral("0"));
            EXPECT_EQ(
                sqlValue(dbPath(), QStringLiteral("SELECT COUNT(*) FROM action_variables WHERE "
                                                  "action_id = %1")
                                       .arg(id)),
                QStringLiteral("0"));
        }
        for (const auto& [id, placed] : expected.items) {
            if (expected.inFlightSeparations.contains(id)) {
                continue;
            }
            EXPECT_EQ(
                sqlValue(dbPath(), QStringLiteral("SELECT dropbar_id || ' ' || text_content FROM "
                                                  "dropbar_items WHERE id = %1")
                                       .arg(id)),
                QStringLiteral("%1 %2").arg(placed.first).arg(placed.second));
        }
    }

    std::vector<std::unique_ptr<QProcess>> m_processes;
};

TEST_F(CrashTest, EveryReportedChangeSurvivesAKillAtARandomPoint)
{
    Expectation expected;
    QRandomGenerator random(20240611);
    int killed = 0;
    for (int round = 0; round < 8; ++round) {
        QProcess* writer = startWriter({QStringLiteral("changes"), dbPath(),
                                        QStringLiteral("r%1").arg(round), QStringLiteral("20000")});
        // Wait for its first commit, then let it run a random while.
        QElapsedTimer started;
        started.start();
        QByteArray output;
        while (output.isEmpty() && started.elapsed() < 10000 &&
               writer->state() == QProcess::Running) {
            writer->waitForReadyRead(50);
            output += writer->readAllStandardOutput();
        }
        // Far sooner than 20000 changes take, so each writer dies at some random step.
        const int delay = random.bounded(2, 120);
        if (!writer->waitForFinished(delay)) {
            ::kill(static_cast<pid_t>(writer->processId()), SIGKILL);
            writer->waitForFinished(10000);
            ++killed;
        }
        output += writer->readAllStandardOutput();
        EXPECT_FALSE(output.contains("done") && writer->exitCode() != 0);
        expected.read(output);
        // Each later round opens the file that the killed writer left behind.
    }
    EXPECT_GE(killed, 4) << "the writers finished too soon to be killed";
    EXPECT_GT(expected.commits, 100);
    verify(expected);

    // The store opens the file normally afterwards and can go on writing.
    ASSERT_TRUE(db().loadDatabase());
    EXPECT_NE(db().addGridWithName(QStringLiteral("after")), 0);
}

TEST_F(CrashTest, TwoWritersAtOnceNeverFailWithLockedDatabase)
{
    QProcess* first = startWriter(
        {QStringLiteral("changes"), dbPath(), QStringLiteral("a"), QStringLiteral("150")});
    QProcess* second = startWriter(
        {QStringLiteral("changes"), dbPath(), QStringLiteral("b"), QStringLiteral("150")});
    Expectation expected;
    for (QProcess* writer : {first, second}) {
        ASSERT_TRUE(writer->waitForFinished(120000));
        EXPECT_EQ(writer->exitStatus(), QProcess::NormalExit);
        EXPECT_EQ(writer->exitCode(), 0) << writer->readAllStandardError().toStdString();
        const QByteArray output = writer->readAllStandardOutput();
        EXPECT_TRUE(output.contains("done"));
        expected.read(output);
    }
    EXPECT_GE(expected.commits, 300);
    verify(expected);
}

TEST_F(CrashTest, AMigrationKilledHalfWayLeavesTheOldVersion)
{
    createDatabaseAtVersion(dbPath(), 2);
    QProcess* migrating = startWriter({QStringLiteral("migrate"), dbPath(), QStringLiteral("7")});
    QByteArray output;
    QElapsedTimer waited;
    waited.start();
    while (!output.contains("step 7") && waited.elapsed() < 20000 &&
           migrating->state() == QProcess::Running) {
        migrating->waitForReadyRead(100);
        output += migrating->readAllStandardOutput();
    }
    ASSERT_TRUE(output.contains("step 7")) << migrating->readAllStandardError().toStdString();
    // Steps up to version 6 have run inside the open transaction by now.
    ::kill(static_cast<pid_t>(migrating->processId()), SIGKILL);
    migrating->waitForFinished(10000);

    EXPECT_EQ(sqlValue(dbPath(), QStringLiteral("PRAGMA integrity_check")), QStringLiteral("ok"));
    EXPECT_EQ(sqlValue(dbPath(), QStringLiteral("PRAGMA user_version")), QStringLiteral("2"));
    EXPECT_EQ(sqlValue(dbPath(),
                       QStringLiteral("SELECT COUNT(*) FROM sqlite_master WHERE name = 'grids'")),
              QStringLiteral("0"));
    EXPECT_FALSE(schemaOf(dbPath())
                     .value(QStringLiteral("actions"))
                     .contains(QStringLiteral("services_key")));
    EXPECT_EQ(sqlValue(dbPath(), QStringLiteral("SELECT name FROM categories WHERE id = 2")),
              QStringLiteral("Installed Actions"));
    EXPECT_TRUE(QFileInfo::exists(db().backupPathForVersion(2)));

    // The next start migrates it whole.
    ASSERT_TRUE(db().loadDatabase());
    EXPECT_EQ(sqlValue(dbPath(), QStringLiteral("PRAGMA user_version")), QStringLiteral("11"));
    EXPECT_EQ(schemaOf(dbPath()), schemaOf(GridDatabase::initialDatabaseResourcePath()));
}

} // namespace
