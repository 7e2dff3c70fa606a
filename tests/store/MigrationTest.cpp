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
    MigrationTest()
        : StoreTest(false)
    {}
    // Builds the database at `version` where the store expects it, runs `prepare` on it and
    // loads it.
    void loadAtVersion(int version, const QString& prepare = {})
    {
        createDatabaseAtVersion(dbPath(), version);
        if (!prepare.isEmpty()) {
            SqliteConnection raw;
            ASSERT_TRUE(raw.open(dbPath()) && raw.execute(prepare));
        }
        ASSERT_TRUE(db().loadDatabase());
        EXPECT_EQ(value(QStringLiteral("PRAGMA user_version")), QStringLiteral("11"));
    }
    QStringList shippedSchema() const
    {
        return schemaOf(GridDatabase::initialDatabaseResourcePath());
    }
};

class EveryVersionTest : public MigrationTest, public testing::WithParamInterface<int> {};

TEST_P(EveryVersionTest, EndsWithTheCurrentSchemaKeepsTheRowsAndRunsOnlyLaterSteps)
{
    const int version = GetParam();
    loadAtVersion(version);
    EXPECT_EQ(value(QStringLiteral("PRAGMA integrity_check")), QStringLiteral("ok"));
    EXPECT_EQ(schemaOf(dbPath()), shippedSchema());
    EXPECT_TRUE(db().requiredTablesExist());

    EXPECT_EQ(column(QStringLiteral("SELECT name FROM actions ORDER BY id")),
              (QStringList{QStringLiteral("Move to Docs"), QStringLiteral("Uploader")}));
    EXPECT_EQ(db().getExtraVariablesForActionId(1).value(QStringLiteral("scoped_bookmark")),
              QVariant(QByteArray("\x01\x02", 2)));
    EXPECT_EQ(value(QStringLiteral("SELECT COUNT(*) FROM action_variables")), QStringLiteral("3"));

    // The copy kept before the migration is the old file, at its old version.
    const QString backup = db().backupPathForVersion(version);
    EXPECT_EQ(sqlValue(backup, QStringLiteral("PRAGMA user_version")), QString::number(version));
    EXPECT_EQ(sqlValue(backup, QStringLiteral("SELECT name FROM categories WHERE id = 2")),
              QStringLiteral("Installed Actions"));

    // Only the steps after its version ran: the rename belongs to version 1 only.
    EXPECT_EQ(value(QStringLiteral("SELECT name FROM categories WHERE id = 2")),
              version == 1 ? QStringLiteral("Actions") : QStringLiteral("Installed Actions"));
    EXPECT_EQ(column(QStringLiteral("SELECT id || ':' || display_order || ':' || grid_size FROM "
                                    "grids ORDER BY id"))
                  .join(u' '),
              version <= 3   ? QStringLiteral("1:0:70.0")
              : version == 4 ? QStringLiteral("1:0:70.0 2:1:70.0")
              : version == 5 ? QStringLiteral("1:7:70.0 2:3:70.0")
                             : QStringLiteral("1:7:70.0 2:3:90.0"));
    EXPECT_EQ(column(QStringLiteral("SELECT DISTINCT grid_id FROM categories")),
              QStringList{QStringLiteral("1")});
    // Categories take their id minus one as order when the column arrives (version 7).
    EXPECT_EQ(column(QStringLiteral("SELECT display_order FROM categories ORDER BY id")).join(u' '),
              version <= 6 ? QStringLiteral("0 1 2") : QStringLiteral("4 0 9"));
    EXPECT_EQ(column(QStringLiteral("SELECT quote(num_cols) || special_actions_visible || "
                                    "grid_switcher_visible FROM grids WHERE id = 1")),
              QStringList{QStringLiteral("NULL11")});
    EXPECT_EQ(value(QStringLiteral("SELECT COUNT(*) FROM dropbar_items")),
              version >= 10 ? QStringLiteral("1") : QStringLiteral("0"));
}

INSTANTIATE_TEST_SUITE_P(Versions, EveryVersionTest, testing::Range(1, 11),
                         [](const testing::TestParamInfo<int>& row) {
                             return "Version" + std::to_string(row.param);
                         });

TEST_F(MigrationTest, ThePreviousIconSizeIsCopiedOnlyWhenSetAndOnlyBeforeVersionSix)
{
    struct Row {
        std::optional<int> gridIconSize;
        int fromVersion;
        const char* sizes;
    };
    for (const Row& row :
         {Row{std::nullopt, 5, "70.0 70.0"}, Row{0, 5, "70.0 70.0"}, Row{48, 5, "48.0 48.0"},
          Row{48, 4, "48.0 48.0"}, Row{48, 6, "70.0 90.0"}}) {
        m_engine.reset(); // a fresh home for each row
        m_engine = std::make_unique<TestEngine>();
        if (row.gridIconSize) {
            engine().settings.setValue(QStringLiteral("GridIconSize"), *row.gridIconSize);
        }
        loadAtVersion(row.fromVersion);
        EXPECT_EQ(
            column(QStringLiteral("SELECT quote(grid_size) FROM grids ORDER BY id")).join(u' '),
            QString::fromLatin1(row.sizes))
            << row.fromVersion << " " << row.gridIconSize.value_or(-1);
    }
}

TEST_F(MigrationTest, AVersionAboveTheCurrentOneIsOnlyRestamped)
{
    createDatabaseAtVersion(dbPath(), 10);
    const QStringList schema = schemaOf(dbPath());
    loadAtVersion(10, QStringLiteral("PRAGMA user_version = 12")); // written by a newer program
    EXPECT_EQ(schemaOf(dbPath()), schema);
    EXPECT_EQ(value(QStringLiteral("SELECT name FROM categories WHERE id = 2")),
              QStringLiteral("Installed Actions"));
    EXPECT_EQ(column(QStringLiteral("SELECT display_order FROM grids ORDER BY id")).join(u' '),
              QStringLiteral("7 3"));
    EXPECT_TRUE(QFileInfo::exists(db().backupPathForVersion(12)));
}

TEST_F(MigrationTest, VersionZeroIsStampedWithoutSteps)
{
    loadAtVersion(0);
    EXPECT_FALSE(db().requiredTablesExist()); // no grids table: nothing was migrated
    EXPECT_FALSE(QFileInfo::exists(db().backupPathForVersion(0)));
}

TEST_F(MigrationTest, AStepThatFailsDoesNotStopTheOthers)
{
    // A grids table that refuses rows: the "Main Grid" insert of version 4 fails.
    loadAtVersion(3, QStringLiteral("CREATE TABLE grids (id INTEGER PRIMARY KEY AUTOINCREMENT, "
                                    "name TEXT); CREATE TRIGGER refuse BEFORE INSERT ON grids "
                                    "BEGIN SELECT RAISE(ABORT, 'no'); END;"));
    EXPECT_EQ(value(QStringLiteral("SELECT COUNT(*) FROM grids")), QStringLiteral("0"));
    EXPECT_EQ(value(QStringLiteral("SELECT COUNT(*) FROM categories WHERE grid_id = 1")),
              QStringLiteral("3"));
    EXPECT_EQ(schemaOf(dbPath()), shippedSchema());
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

TEST_F(MigrationTest, AFreshHomeGetsTheInitialDatabaseInWalModeOnALocalDisk)
{
    NotificationCount gridsChanged(engine().notifications, Notifications::GridsChanged);
    loadInitialDatabase();
    EXPECT_TRUE(db().didCopyInitialDb());
    EXPECT_EQ(gridsChanged.count, 1);
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
    EXPECT_TRUE(alerts().isEmpty());
    EXPECT_EQ(db().journalMode(), QStringLiteral("wal"));
    EXPECT_EQ(db().runQuery(QStringLiteral("PRAGMA synchronous")).first().first().toInt(), 2);
    EXPECT_EQ(db().runQuery(QStringLiteral("PRAGMA busy_timeout")).first().first().toInt(),
              GridDatabase::BusyTimeoutMilliseconds);
}

TEST_F(MigrationTest, UsesARollbackJournalOnANetworkFileSystem)
{
    mountAs(supportPath({}), "nfs4");
    loadInitialDatabase();
    EXPECT_EQ(db().journalMode(), QStringLiteral("delete"));
}

TEST_F(MigrationTest, AMissingOrUncopiableInitialDatabaseIsReportedOnTheMainLoop)
{
    LogCapture log;
    GridDatabase store(dbPath(), QString());
    store.setContext(&engine().storeContext);
    EXPECT_FALSE(store.loadDatabase());
    EXPECT_TRUE(alerts().isEmpty()); // shown on the main loop
    processEvents();
    EXPECT_FALSE(QFileInfo::exists(dbPath()));
    EXPECT_TRUE(log.contains(QStringLiteral(
        "Error creating initial actions database: source path (nil) or destination path")));
    EXPECT_TRUE(log.contains(QStringLiteral("Error opening database!")));
    ASSERT_EQ(alerts().size(), 1);
    EXPECT_EQ(alerts().first().style, Alert::Style::Critical);
    EXPECT_EQ(alerts().first().title, QStringLiteral("Database Initialization Error"));
    EXPECT_TRUE(alerts().first().message.startsWith(
        QStringLiteral("Skelvo was unable to initialize its database.\n\nSource path: "
                       "nil\nDestination path: %1\n\n")
            .arg(dbPath())));
    EXPECT_TRUE(alerts().first().message.endsWith(
        QStringLiteral("\n\nPlease report this at https://github.com/skelvo/skelvo/issues.")));
    // Every later operation fails quietly.
    EXPECT_EQ(store.addGridWithName(QStringLiteral("x")), 0);
    EXPECT_TRUE(store.getGrids().isEmpty());

    GridDatabase copying(dbPath(), supportPath(QStringLiteral("no-such.skdb")));
    copying.setContext(&engine().storeContext);
    EXPECT_FALSE(copying.copyInInitalDb());
    processEvents();
    ASSERT_EQ(alerts().size(), 2);
    EXPECT_TRUE(alerts().last().message.startsWith(
        QStringLiteral("Skelvo was unable to copy its initial database.\n\n")));
    EXPECT_FALSE(copying.didCopyInitialDb());
}

TEST_F(MigrationTest, ADamagedFileIsLeftAloneOnCloseAndKeptAsideOnRecreate)
{
    const QByteArray damaged = "this is not a database, but the user's only copy";
    m_engine->home().writeFile(QStringLiteral("data/Skelvo/Actions5.skdb"), damaged);
    int quits = 0;
    int prepared = 0;
    int filled = 0;
    engine().storeHooks.quitApplication = [&] { ++quits; };
    engine().storeHooks.prepareGrid = [&] { ++prepared; };
    engine().storeHooks.createFirstLaunchGridActions = [&] { ++filled; };
    const auto readAll = [](const QString& path) {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    };
    db().loadDatabase();
    ASSERT_FALSE(db().requiredTablesExist());
    db().handleDBCorrupt();
    EXPECT_TRUE(alerts().isEmpty()); // asked on the main loop
    processEvents();
    ASSERT_EQ(alerts().size(), 1);
    EXPECT_EQ(alerts().first().style, Alert::Style::Critical);
    EXPECT_EQ(alerts().first().title, QStringLiteral("Skelvo Database Missing or Corrupt"));
    EXPECT_EQ(alerts().first().message,
              QStringLiteral("It appears that your Skelvo database is either missing or "
                             "corrupt.\n\nYou can attempt to recreate the database, but please "
                             "note that this will result in the loss of any actions you have "
                             "previously set up."));
    EXPECT_EQ(alerts().first().buttons,
              (QStringList{QStringLiteral("Close"), QStringLiteral("Recreate Database")}));
    EXPECT_EQ(quits, 1);
    EXPECT_EQ(readAll(dbPath()), damaged);

    m_engine->alerts().setNextAnswer(1);
    db().handleDBCorrupt();
    processEvents();
    EXPECT_EQ(quits, 1);
    EXPECT_EQ(filled, 1);
    EXPECT_EQ(prepared, 1);
    EXPECT_TRUE(db().requiredTablesExist());
    EXPECT_TRUE(db().didCopyInitialDb());
    EXPECT_EQ(db().getGrids().size(), 1);
    const QStringList aside =
        QDir(supportPath({})).entryList({QStringLiteral("Actions5.skdb.damaged-*")});
    ASSERT_EQ(aside.size(), 1);
    EXPECT_EQ(readAll(supportPath(aside.first())), damaged);
}

} // namespace
