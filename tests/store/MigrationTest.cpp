#include "core/NotificationCenter.h"
#include "core/Settings.h"
#include "store/GridDatabase.h"
#include "store/GridStoreHooks.h"
#include "tests/store/StoreTestSupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

class MigrationTest : public StoreTest {
protected:
    // Builds the database at `version` where the store expects it and loads it.
    void loadAtVersion(int version)
    {
        createDatabaseAtVersion(dbPath(), version);
        ASSERT_TRUE(db().loadDatabase());
    }
    QString value(const QString& sql) const { return sqlValue(dbPath(), sql); }
    QStringList column(const QString& sql) const { return sqlColumn(dbPath(), sql); }
};

class EveryVersionTest : public MigrationTest, public testing::WithParamInterface<int> {};

TEST_P(EveryVersionTest, EndsWithTheCurrentSchemaKeepsTheRowsAndRunsOnlyLaterSteps)
{
    const int version = GetParam();
    loadAtVersion(version);

    EXPECT_EQ(value(QStringLiteral("PRAGMA user_version")), QStringLiteral("11"));
    EXPECT_EQ(value(QStringLiteral("PRAGMA integrity_check")), QStringLiteral("ok"));
    // The migrated file has every table and column of the shipped one, with their types and
    // defaults.
    EXPECT_EQ(schemaOf(dbPath()), schemaOf(GridDatabase::initialDatabaseResourcePath()));
    EXPECT_TRUE(db().requiredTablesExist());

    EXPECT_EQ(column(QStringLiteral("SELECT name FROM actions ORDER BY id")),
              (QStringList{QStringLiteral("Move to Docs"), QStringLiteral("Uploader")}));
    EXPECT_EQ(db().getExtraVariablesForActionId(1).value(QStringLiteral("scoped_bookmark")),
              QVariant(QByteArray("\x01\x02", 2)));
    EXPECT_EQ(value(QStringLiteral("SELECT COUNT(*) FROM action_variables")), QStringLiteral("3"));

    // The copy kept before the migration is the old file, at its old version.
    const QString backup = db().backupPathForVersion(version);
    ASSERT_TRUE(QFileInfo::exists(backup));
    EXPECT_EQ(sqlValue(backup, QStringLiteral("PRAGMA user_version")), QString::number(version));
    EXPECT_EQ(sqlValue(backup, QStringLiteral("SELECT name FROM categories WHERE id = 2")),
              QStringLiteral("Installed Actions"));

    // Only the steps after its version ran: the rename belongs to version 1 only.
    EXPECT_EQ(value(QStringLiteral("SELECT name FROM categories WHERE id = 2")),
              version == 1 ? QStringLiteral("Actions") : QStringLiteral("Installed Actions"));

    if (version <= 3) {
        EXPECT_EQ(column(QStringLiteral("SELECT id || ':' || name || ':' || display_order FROM "
                                        "grids")),
                  QStringList{QStringLiteral("1:Main Grid:0")});
        EXPECT_EQ(column(QStringLiteral("SELECT DISTINCT grid_id FROM categories")),
                  QStringList{QStringLiteral("1")});
    } else if (version == 4) {
        EXPECT_EQ(column(QStringLiteral("SELECT display_order FROM grids ORDER BY id")),
                  (QStringList{QStringLiteral("0"), QStringLiteral("1")}));
    } else {
        EXPECT_EQ(column(QStringLiteral("SELECT display_order FROM grids ORDER BY id")),
                  (QStringList{QStringLiteral("7"), QStringLiteral("3")}));
    }

    // Categories take their id minus one as order when the column arrives (version 7).
    EXPECT_EQ(column(QStringLiteral("SELECT display_order FROM categories ORDER BY id")),
              version <= 6
                  ? (QStringList{QStringLiteral("0"), QStringLiteral("1"), QStringLiteral("2")})
                  : (QStringList{QStringLiteral("4"), QStringLiteral("0"), QStringLiteral("9")}));

    EXPECT_EQ(value(QStringLiteral("SELECT grid_size FROM grids WHERE id = 1")),
              QStringLiteral("70.0"));
    EXPECT_EQ(value(QStringLiteral("SELECT num_cols FROM grids WHERE id = 1")),
              QStringLiteral("NULL"));
    EXPECT_EQ(value(QStringLiteral("SELECT special_actions_visible FROM grids WHERE id = 1")),
              QStringLiteral("1"));
    EXPECT_EQ(value(QStringLiteral("SELECT grid_switcher_visible FROM grids WHERE id = 1")),
              QStringLiteral("1"));
    EXPECT_EQ(value(QStringLiteral("SELECT COUNT(*) FROM dropbar_items")),
              version >= 10 ? QStringLiteral("1") : QStringLiteral("0"));
}

INSTANTIATE_TEST_SUITE_P(Versions, EveryVersionTest, testing::Range(1, 11),
                         [](const testing::TestParamInfo<int>& row) {
                             return "Version" + std::to_string(row.param);
                         });

struct IconSizeRow {
    const char* label;
    std::optional<int> gridIconSize;
    int fromVersion;
    const char* gridOne;
    const char* gridTwo;
};

class GridIconSizeTest : public MigrationTest, public testing::WithParamInterface<IconSizeRow> {};

TEST_P(GridIconSizeTest, CopiesThePreviousIconSizeOnlyWhenSet)
{
    const IconSizeRow& row = GetParam();
    if (row.gridIconSize) {
        engine().settings.setValue(QStringLiteral("GridIconSize"), *row.gridIconSize);
    }
    loadAtVersion(row.fromVersion);
    EXPECT_EQ(column(QStringLiteral("SELECT grid_size FROM grids ORDER BY id")),
              (QStringList{QString::fromLatin1(row.gridOne), QString::fromLatin1(row.gridTwo)}));
}

INSTANTIATE_TEST_SUITE_P(Rows, GridIconSizeTest,
                         testing::Values(IconSizeRow{"Unset", std::nullopt, 5, "70.0", "70.0"},
                                         IconSizeRow{"Zero", 0, 5, "70.0", "70.0"},
                                         IconSizeRow{"FortyEight", 48, 5, "48.0", "48.0"},
                                         IconSizeRow{"FortyEightFromFour", 48, 4, "48.0", "48.0"},
                                         // From version 6 on the sizes are the grids' own.
                                         IconSizeRow{"FortyEightFromSix", 48, 6, "70.0", "90.0"}),
                         [](const testing::TestParamInfo<IconSizeRow>& row) {
                             return std::string(row.param.label);
                         });

TEST_F(MigrationTest, AVersionAboveTheCurrentOneIsOnlyRestamped)
{
    createDatabaseAtVersion(dbPath(), 10);
    {
        // A file written by a newer program.
        SqliteConnection raw;
        ASSERT_TRUE(raw.open(dbPath()));
        ASSERT_TRUE(raw.execute(QStringLiteral("PRAGMA user_version = 12")));
    }
    const auto before = schemaOf(dbPath());
    ASSERT_TRUE(db().loadDatabase());
    EXPECT_EQ(value(QStringLiteral("PRAGMA user_version")), QStringLiteral("11"));
    EXPECT_EQ(schemaOf(dbPath()), before);
    EXPECT_EQ(value(QStringLiteral("SELECT name FROM categories WHERE id = 2")),
              QStringLiteral("Installed Actions"));
    EXPECT_EQ(column(QStringLiteral("SELECT display_order FROM grids ORDER BY id")),
              (QStringList{QStringLiteral("7"), QStringLiteral("3")}));
    EXPECT_TRUE(QFileInfo::exists(db().backupPathForVersion(12)));
}

TEST_F(MigrationTest, VersionZeroIsStampedWithoutSteps)
{
    createDatabaseAtVersion(dbPath(), 0);
    ASSERT_TRUE(db().loadDatabase());
    EXPECT_EQ(value(QStringLiteral("PRAGMA user_version")), QStringLiteral("11"));
    EXPECT_FALSE(db().requiredTablesExist()); // no grids table: nothing was migrated
    EXPECT_FALSE(QFileInfo::exists(db().backupPathForVersion(0)));
}

TEST_F(MigrationTest, AStepThatFailsDoesNotStopTheOthers)
{
    createDatabaseAtVersion(dbPath(), 3);
    {
        // A grids table that refuses rows: the "Main Grid" insert of version 4 fails.
        SqliteConnection raw;
        ASSERT_TRUE(raw.open(dbPath()));
        ASSERT_TRUE(raw.execute(QStringLiteral(
            "CREATE TABLE grids (id INTEGER PRIMARY KEY AUTOINCREMENT, name TEXT);"
            "CREATE TRIGGER refuse BEFORE INSERT ON grids BEGIN SELECT RAISE(ABORT, 'no'); "
            "END;")));
    }
    ASSERT_TRUE(db().loadDatabase());
    EXPECT_EQ(value(QStringLiteral("PRAGMA user_version")), QStringLiteral("11"));
    EXPECT_EQ(value(QStringLiteral("SELECT COUNT(*) FROM grids")), QStringLiteral("0"));
    EXPECT_EQ(value(QStringLiteral("SELECT COUNT(*) FROM categories WHERE grid_id = 1")),
              QStringLiteral("3"));
    EXPECT_EQ(schemaOf(dbPath()), schemaOf(GridDatabase::initialDatabaseResourcePath()));
}

TEST_F(MigrationTest, TheLegacyFileIsCopiedOnceAndTheIconCacheDropped)
{
    LogCapture log;
    const QString legacy = supportPath(GridDatabase::LegacyDatabaseFileName);
    createDatabaseAtVersion(legacy, 2);
    const QString staleIcon = m_engine->home().writeFile(QStringLiteral("data/Skelvo/Icons/5/1"),
                                                         QByteArrayLiteral("old icon"));
    ASSERT_TRUE(db().loadDatabase());
    EXPECT_TRUE(log.contains(
        QStringLiteral("Migrated legacy database from Actions.skdb to Actions5.skdb")));
    EXPECT_FALSE(QFileInfo::exists(staleIcon));
    EXPECT_FALSE(db().didCopyInitialDb());
    EXPECT_EQ(value(QStringLiteral("SELECT name FROM actions WHERE id = 2")),
              QStringLiteral("Uploader"));
    EXPECT_EQ(value(QStringLiteral("PRAGMA user_version")), QStringLiteral("11"));
    // The legacy file itself is left alone.
    EXPECT_EQ(sqlValue(legacy, QStringLiteral("PRAGMA user_version")), QStringLiteral("2"));
}

TEST_F(MigrationTest, AFreshHomeGetsTheInitialDatabase)
{
    int gridsChanged = 0;
    const int token = engine().notifications.addObserver(
        Notifications::GridsChanged, nullptr, [&](const Notification&) { ++gridsChanged; });
    loadInitialDatabase();
    engine().notifications.removeObserver(token);

    EXPECT_TRUE(db().didCopyInitialDb());
    EXPECT_EQ(gridsChanged, 1);
    EXPECT_EQ(value(QStringLiteral("PRAGMA user_version")), QStringLiteral("11"));
    EXPECT_EQ(column(QStringLiteral("SELECT name FROM grids")),
              QStringList{QStringLiteral("Main Grid")});
    EXPECT_EQ(column(QStringLiteral("SELECT name FROM categories ORDER BY display_order")),
              (QStringList{QStringLiteral("Actions"), QStringLiteral("Apps"),
                           QStringLiteral("Folders")}));
    // The shipped file is never written to.
    EXPECT_EQ(sqlValue(GridDatabase::initialDatabaseResourcePath(),
                       QStringLiteral("PRAGMA user_version")),
              QStringLiteral("0"));
    EXPECT_TRUE(m_engine->alerts().alerts.isEmpty());
}

TEST_F(MigrationTest, UsesWalOnALocalDiskWithFullSyncAndABusyTimeout)
{
    loadInitialDatabase();
    EXPECT_EQ(db().journalMode(), QStringLiteral("wal"));
    EXPECT_EQ(db().runQuery(QStringLiteral("PRAGMA synchronous")).first().first().toInt(), 2);
    EXPECT_EQ(db().runQuery(QStringLiteral("PRAGMA busy_timeout")).first().first().toInt(),
              GridDatabase::BusyTimeoutMilliseconds);
}

TEST_F(MigrationTest, UsesARollbackJournalOnANetworkFileSystem)
{
    // The support folder presented as an NFS mount.
    const QString table = m_engine->home().writeFile(
        QStringLiteral("mountinfo"), QStringLiteral("22 1 8:1 / / rw - ext4 /dev/sda1 rw\n"
                                                    "90 22 0:50 / %1 rw - nfs4 server:/export rw\n")
                                         .arg(QFileInfo(supportPath({})).canonicalFilePath())
                                         .toUtf8());
    FileSystemInfoOverride mounts(table);
    loadInitialDatabase();
    EXPECT_EQ(db().journalMode(), QStringLiteral("delete"));
}

TEST_F(MigrationTest, AMissingInitialDatabaseIsReportedAndNothingIsCreated)
{
    LogCapture log;
    GridDatabase store(dbPath(), QString());
    store.setContext(&engine().storeContext);
    EXPECT_FALSE(store.loadDatabase());
    processEvents();
    EXPECT_FALSE(QFileInfo::exists(dbPath()));
    EXPECT_TRUE(log.contains(QStringLiteral(
        "Error creating initial actions database: source path (nil) or destination path")));
    EXPECT_TRUE(log.contains(QStringLiteral("Error opening database!")));
    ASSERT_EQ(m_engine->alerts().alerts.size(), 1);
    const Alert alert = m_engine->alerts().alerts.first();
    EXPECT_EQ(alert.style, Alert::Style::Critical);
    EXPECT_EQ(alert.title, QStringLiteral("Database Initialization Error"));
    EXPECT_TRUE(alert.message.startsWith(
        QStringLiteral("Skelvo was unable to initialize its database.\n\nSource path: "
                       "nil\nDestination path: %1\n\n")
            .arg(dbPath())));
    EXPECT_TRUE(alert.message.endsWith(
        QStringLiteral("Please report this at https://github.com/skelvo/skelvo/issues.")));
    // Every later operation fails quietly.
    EXPECT_EQ(store.addGridWithName(QStringLiteral("x")), 0);
    EXPECT_TRUE(store.getGrids().isEmpty());
    EXPECT_FALSE(store.requiredTablesExist());
}

TEST_F(MigrationTest, AFailedCopyIsReported)
{
    LogCapture log;
    GridDatabase store(dbPath(), supportPath(QStringLiteral("no-such.skdb")));
    store.setContext(&engine().storeContext);
    EXPECT_FALSE(store.copyInInitalDb());
    processEvents();
    EXPECT_TRUE(log.contains(QStringLiteral("Error creating initial actions database: ")));
    ASSERT_EQ(m_engine->alerts().alerts.size(), 1);
    const Alert alert = m_engine->alerts().alerts.first();
    EXPECT_EQ(alert.title, QStringLiteral("Database Initialization Error"));
    EXPECT_TRUE(alert.message.startsWith(
        QStringLiteral("Skelvo was unable to copy its initial database.\n\n")));
    EXPECT_TRUE(alert.message.endsWith(
        QStringLiteral("\n\nPlease report this at https://github.com/skelvo/skelvo/issues.")));
    EXPECT_FALSE(store.didCopyInitialDb());
}

TEST_F(MigrationTest, TheAlertWaitsForTheMainLoop)
{
    GridDatabase store(dbPath(), QString());
    store.setContext(&engine().storeContext);
    store.copyInInitalDb();
    EXPECT_TRUE(m_engine->alerts().alerts.isEmpty());
    processEvents();
    EXPECT_EQ(m_engine->alerts().alerts.size(), 1);
}

class DamagedFileTest : public MigrationTest {
protected:
    void SetUp() override
    {
        MigrationTest::SetUp();
        m_engine->home().writeFile(
            QStringLiteral("data/Skelvo/Actions5.skdb"),
            QByteArray("this is not a database, but the user's only copy", 48));
        m_damaged = readAll(dbPath());
        engine().storeHooks.quitApplication = [this] { ++m_quits; };
        engine().storeHooks.prepareGrid = [this] { ++m_prepared; };
        engine().storeHooks.createFirstLaunchGridActions = [this] { ++m_filled; };
    }
    static QByteArray readAll(const QString& path)
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    QByteArray m_damaged;
    int m_quits = 0;
    int m_prepared = 0;
    int m_filled = 0;
};

TEST_F(DamagedFileTest, IsLeftAloneWhenTheUserCloses)
{
    db().loadDatabase();
    ASSERT_FALSE(db().requiredTablesExist());
    db().handleDBCorrupt();
    EXPECT_TRUE(m_engine->alerts().alerts.isEmpty()); // asked on the main loop
    processEvents();
    ASSERT_EQ(m_engine->alerts().alerts.size(), 1);
    const Alert alert = m_engine->alerts().alerts.first();
    EXPECT_EQ(alert.style, Alert::Style::Critical);
    EXPECT_EQ(alert.title, QStringLiteral("Skelvo Database Missing or Corrupt"));
    EXPECT_EQ(alert.message,
              QStringLiteral("It appears that your Skelvo database is either missing or "
                             "corrupt.\n\nYou can attempt to recreate the database, but please "
                             "note that this will result in the loss of any actions you have "
                             "previously set up."));
    EXPECT_EQ(alert.buttons,
              (QStringList{QStringLiteral("Close"), QStringLiteral("Recreate Database")}));
    EXPECT_EQ(m_quits, 1);
    EXPECT_EQ(readAll(dbPath()), m_damaged);
}

TEST_F(DamagedFileTest, IsKeptAsideWhenTheUserRecreates)
{
    db().loadDatabase();
    EXPECT_EQ(readAll(dbPath()), m_damaged); // opening did not touch it
    m_engine->alerts().setNextAnswer(1);
    db().handleDBCorrupt();
    processEvents();
    EXPECT_EQ(m_quits, 0);
    EXPECT_EQ(m_filled, 1);
    EXPECT_EQ(m_prepared, 1);
    EXPECT_TRUE(db().requiredTablesExist());
    EXPECT_TRUE(db().didCopyInitialDb());
    EXPECT_EQ(db().getGrids().size(), 1);
    const QStringList aside =
        QDir(supportPath({})).entryList({QStringLiteral("Actions5.skdb.damaged-*")});
    ASSERT_EQ(aside.size(), 1);
    EXPECT_EQ(readAll(supportPath(aside.first())), m_damaged);
}

} // namespace
