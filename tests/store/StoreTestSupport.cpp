#include "tests/store/StoreTestSupport.h"

#include "actions/ActionFileParser.h"
#include "core/SecretStore.h"
#include "core/Settings.h"
#include "core/SupportPaths.h"
#include "platform/FileSecretStore.h"
#include "platform/FileSystemInfo.h"
#include "store/GridStoreHooks.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>

#include <sqlite3.h>

namespace {

// The program shares one application object for the main loop that alerts are posted to,
// and one home with empty action folders for the action parser, whose folders are fixed
// when it is first used: the tests register exactly the actions they mean.
class StoreEnvironment : public testing::Environment {
public:
    void SetUp() override
    {
        m_home = std::make_unique<TestHome>();
        m_previousResources = qgetenv("SKELVO_RESOURCES");
        const QString resources = QDir(m_home->path()).filePath(QStringLiteral("resources"));
        QDir().mkpath(QDir(resources).filePath(QStringLiteral("Actions")));
        qputenv("SKELVO_RESOURCES", resources.toUtf8());
        static int argc = 1;
        static char name[] = "store_tests";
        static char* argv[] = {name, nullptr};
        m_application = std::make_unique<QCoreApplication>(argc, argv);
        ActionFileParser::shared();
    }
    void TearDown() override
    {
        m_application.reset();
        qputenv("SKELVO_RESOURCES", m_previousResources);
        m_home.reset();
    }

private:
    std::unique_ptr<TestHome> m_home;
    QByteArray m_previousResources;
    std::unique_ptr<QCoreApplication> m_application;
};

[[maybe_unused]] testing::Environment* const environment =
    testing::AddGlobalTestEnvironment(new StoreEnvironment);

void exec(sqlite3* db, const QString& sql)
{
    char* message = nullptr;
    if (sqlite3_exec(db, sql.toUtf8().constData(), nullptr, nullptr, &message) != SQLITE_OK) {
        ADD_FAILURE() << "fixture SQL failed: " << (message ? message : "?") << "\n"
                      << sql.toStdString();
    }
    sqlite3_free(message);
}

} // namespace

void createDatabaseAtVersion(const QString& path, int version)
{
    QFile::remove(path);
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(path.toUtf8().constData(), &db), SQLITE_OK);
    // Each table in the form it had at that version, written out rather than derived from
    // the migration, so the migration is checked against an independent picture.
    QString categories =
        QStringLiteral("CREATE TABLE categories (id INTEGER PRIMARY KEY, name TEXT");
    if (version >= 4) {
        categories += QStringLiteral(", grid_id INTEGER REFERENCES grids(id)");
    }
    if (version >= 7) {
        categories += QStringLiteral(", display_order INTEGER DEFAULT 0");
    }
    exec(db, categories + QStringLiteral(")"));
    exec(db, QStringLiteral("CREATE TABLE actions (id INTEGER PRIMARY KEY, name TEXT, type TEXT, "
                            "position INTEGER, category_id INTEGER, bundled_icon TEXT, "
                            "using_default_icon INTEGER") +
                 (version >= 3 ? QStringLiteral(", services_key TEXT)") : QStringLiteral(")")));
    exec(db, QStringLiteral("CREATE TABLE action_variables (action_id INTEGER, variable_name TEXT, "
                            "variable_value TEXT, variable_value_blob BLOB)"));
    if (version >= 4) {
        QString grids = QStringLiteral("CREATE TABLE grids (id INTEGER PRIMARY KEY AUTOINCREMENT, "
                                       "name TEXT");
        if (version >= 5) {
            grids += QStringLiteral(", display_order INTEGER DEFAULT 0");
        }
        if (version >= 6) {
            grids += QStringLiteral(", grid_size REAL DEFAULT 70.0");
        }
        if (version >= 8) {
            grids += QStringLiteral(", num_cols INTEGER DEFAULT NULL");
        }
        if (version >= 9) {
            grids += QStringLiteral(", special_actions_visible INTEGER DEFAULT 1");
        }
        if (version >= 11) {
            grids += QStringLiteral(", grid_switcher_visible INTEGER DEFAULT 1");
        }
        exec(db, grids + QStringLiteral(")"));
        exec(db, QStringLiteral("INSERT INTO grids (name) VALUES ('Main Grid')"));
        exec(db, QStringLiteral("INSERT INTO grids (name) VALUES ('Second')"));
        if (version >= 5) {
            // Orders a migration from 4 would not produce, so a step that ran again shows.
            exec(db, QStringLiteral("UPDATE grids SET display_order = 7 WHERE id = 1"));
            exec(db, QStringLiteral("UPDATE grids SET display_order = 3 WHERE id = 2"));
        }
        if (version >= 6) {
            exec(db, QStringLiteral("UPDATE grids SET grid_size = 90.0 WHERE id = 2"));
        }
    }
    if (version >= 10) {
        exec(db, QStringLiteral(
                     "CREATE TABLE dropbars (id INTEGER PRIMARY KEY AUTOINCREMENT, grid_id INTEGER "
                     "REFERENCES grids(id), title TEXT, name TEXT, icon BLOB, locked INTEGER "
                     "DEFAULT 0, position INTEGER DEFAULT 0)"));
        exec(db, QStringLiteral(
                     "CREATE TABLE dropbar_items (id INTEGER PRIMARY KEY AUTOINCREMENT, dropbar_id "
                     "INTEGER REFERENCES dropbars(id), type TEXT, bookmark_data BLOB, "
                     "text_content TEXT, text_file_path TEXT, position INTEGER DEFAULT 0)"));
        exec(db, QStringLiteral("INSERT INTO dropbars (grid_id, title) VALUES (1, 'Shelf')"));
        exec(db, QStringLiteral("INSERT INTO dropbar_items (dropbar_id, type, text_content) VALUES "
                                "(1, 'text', 'kept')"));
    }
    const QString gridColumn = version >= 4 ? QStringLiteral(", grid_id") : QString();
    const QString gridValue = version >= 4 ? QStringLiteral(", 1") : QString();
    const QString orderColumn = version >= 7 ? QStringLiteral(", display_order") : QString();
    for (const auto& [id, name, order] :
         {std::tuple{1, "Default Actions", 4}, std::tuple{2, "Installed Actions", 0},
          std::tuple{3, "My Apps Folder", 9}}) {
        exec(db, QStringLiteral("INSERT INTO categories (id, name%1%2) VALUES (%3, '%4'%5%6)")
                     .arg(gridColumn, orderColumn)
                     .arg(id)
                     .arg(QString::fromLatin1(name), gridValue,
                          version >= 7 ? QStringLiteral(", %1").arg(order) : QString()));
    }
    exec(db, QStringLiteral("INSERT INTO actions (id, name, type, position, category_id, "
                            "bundled_icon, using_default_icon) VALUES (1, 'Move to Docs', 'Move "
                            "Files', 0, 1, NULL, 1), (2, 'Uploader', 'SFTP Upload', 0, 2, "
                            "'upload', 0)"));
    exec(db,
         QStringLiteral("INSERT INTO action_variables VALUES (1, 'path', '/home/u/Docs', NULL), "
                        "(1, 'scoped_bookmark', NULL, X'0102'), (2, 'server', 'example.org', "
                        "NULL)"));
    if (version > 0) {
        exec(db, QStringLiteral("PRAGMA user_version = %1").arg(version));
    }
    sqlite3_close(db);
}

QMap<QString, QMap<QString, QString>> schemaOf(const QString& path)
{
    QMap<QString, QMap<QString, QString>> schema;
    for (const QString& table : sqlColumn(
             path, QStringLiteral("SELECT name FROM sqlite_master WHERE type = 'table' AND name "
                                  "NOT LIKE 'sqlite_%'"))) {
        sqlite3* db = nullptr;
        sqlite3_open_v2(path.toUtf8().constData(), &db, SQLITE_OPEN_READONLY, nullptr);
        sqlite3_stmt* statement = nullptr;
        sqlite3_prepare_v2(
            db, QStringLiteral("PRAGMA table_info('%1')").arg(table).toUtf8().constData(), -1,
            &statement, nullptr);
        while (sqlite3_step(statement) == SQLITE_ROW) {
            const auto text = [&](int column) {
                const auto* value = sqlite3_column_text(statement, column);
                return value ? QString::fromUtf8(reinterpret_cast<const char*>(value))
                             : QStringLiteral("<none>");
            };
            schema[table].insert(text(1), text(2).toUpper() + QLatin1Char('|') + text(4));
        }
        sqlite3_finalize(statement);
        sqlite3_close(db);
    }
    return schema;
}

QStringList sqlColumn(const QString& path, const QString& sql)
{
    QStringList values;
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path.toUtf8().constData(), &db, SQLITE_OPEN_READONLY, nullptr) !=
        SQLITE_OK) {
        sqlite3_close(db);
        return values;
    }
    sqlite3_busy_timeout(db, 5000);
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, sql.toUtf8().constData(), -1, &statement, nullptr) == SQLITE_OK) {
        while (sqlite3_step(statement) == SQLITE_ROW) {
            const auto* value = sqlite3_column_text(statement, 0);
            values << (value ? QString::fromUtf8(reinterpret_cast<const char*>(value))
                             : QStringLiteral("NULL"));
        }
    } else {
        ADD_FAILURE() << "query failed: " << sqlite3_errmsg(db) << " in " << sql.toStdString();
    }
    sqlite3_finalize(statement);
    sqlite3_close(db);
    return values;
}

QString sqlValue(const QString& path, const QString& sql)
{
    const QStringList values = sqlColumn(path, sql);
    return values.isEmpty() ? QString() : values.first();
}

FileSystemInfoOverride::FileSystemInfoOverride(const QString& mountInfo)
{
    FileSystemInfo::setMountInfoPath(mountInfo);
}

FileSystemInfoOverride::~FileSystemInfoOverride()
{
    FileSystemInfo::setMountInfoPath({});
}

void processEvents()
{
    for (int i = 0; i < 3; ++i) {
        QCoreApplication::sendPostedEvents();
        QCoreApplication::processEvents();
    }
}

void StoreTest::SetUp()
{
    m_engine = std::make_unique<TestEngine>();
}

void StoreTest::TearDown()
{
    processEvents();
    m_engine.reset();
}

QString StoreTest::supportPath(const QString& relative) const
{
    return QDir(SupportPaths::applicationSupportDirectory()).filePath(relative);
}

QString StoreTest::dbPath() const
{
    return supportPath(GridDatabase::DatabaseFileName);
}

void StoreTest::loadInitialDatabase()
{
    ASSERT_FALSE(GridDatabase::initialDatabaseResourcePath().isEmpty())
        << "the build did not generate the initial database";
    ASSERT_TRUE(db().loadDatabase());
    ASSERT_TRUE(db().requiredTablesExist());
}

bool storePassword(GridAction& action, const QString& password, bool secondary)
{
    std::optional<bool> stored;
    auto done = [&stored](bool ok, const QString&) { stored = ok; };
    if (secondary) {
        action.storeSecondaryKeychainPassword(password, done);
    } else {
        action.storeKeychainPassword(password, done);
    }
    EXPECT_TRUE(stored.has_value()) << "the file store answers at once";
    return stored.value_or(false);
}

std::optional<QMap<QString, QString>> retrievePassword(const GridAction& action, bool showErrors,
                                                       bool base64Encoded, bool secondary)
{
    std::optional<std::optional<QMap<QString, QString>>> answer;
    auto done = [&answer](const std::optional<QMap<QString, QString>>& secret) { answer = secret; };
    if (secondary) {
        action.retrieveSecondaryKeychainPasswordShowingErrors(showErrors, base64Encoded, done);
    } else {
        action.retrieveKeychainPasswordShowingErrors(showErrors, base64Encoded, done);
    }
    EXPECT_TRUE(answer.has_value()) << "the file store answers at once";
    return answer.value_or(std::nullopt);
}

SecretStore::Result readSecretNow(SecretStore& store, const QString& service,
                                  const QString& account)
{
    SecretStore::Result result;
    store.readSecret(service, account, [&result](const SecretStore::Result& r) { result = r; });
    return result;
}
