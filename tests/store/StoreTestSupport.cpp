#include "tests/store/StoreTestSupport.h"

#include "actions/ActionFileParser.h"
#include "core/SupportPaths.h"
#include "platform/FileSystemInfo.h"
#include "tests/support/EventLoop.h"

#include <QDir>
#include <QFileInfo>

namespace {

// One application object for the main loop alerts are posted to, and empty action folders
// for the action parser, whose folders are fixed at its first use: the tests register
// exactly the actions they mean.
class StoreEnvironment : public testing::Environment {
public:
    void SetUp() override
    {
        ensureCoreApplication();
        m_home = std::make_unique<TestHome>();
        const QString resources = QDir(m_home->path()).filePath(QStringLiteral("resources"));
        QDir().mkpath(resources + QStringLiteral("/Actions"));
        qputenv("SKELVO_RESOURCES", resources.toUtf8());
        ActionFileParser::shared();
    }
    void TearDown() override { m_home.reset(); }

private:
    std::unique_ptr<TestHome> m_home;
};

[[maybe_unused]] testing::Environment* const environment =
    testing::AddGlobalTestEnvironment(new StoreEnvironment);

} // namespace

void createDatabaseAtVersion(const QString& path, int version)
{
    // Each table in the form it had at that version, written out rather than derived from
    // the migration, so the migration is checked against an independent picture.
    struct Step {
        int since;
        const char* table; // a column of it, or a statement when null
        const char* text;
    };
    static const Step steps[] = {
        {0, "categories", "id INTEGER PRIMARY KEY, name TEXT"},
        {4, "categories", "grid_id INTEGER REFERENCES grids(id)"},
        {7, "categories", "display_order INTEGER DEFAULT 0"},
        {0, "actions",
         "id INTEGER PRIMARY KEY, name TEXT, type TEXT, position INTEGER, category_id INTEGER, "
         "bundled_icon TEXT, using_default_icon INTEGER"},
        {3, "actions", "services_key TEXT"},
        {0, "action_variables",
         "action_id INTEGER, variable_name TEXT, variable_value TEXT, variable_value_blob BLOB"},
        {4, "grids", "id INTEGER PRIMARY KEY AUTOINCREMENT, name TEXT"},
        {5, "grids", "display_order INTEGER DEFAULT 0"},
        {6, "grids", "grid_size REAL DEFAULT 70.0"},
        {8, "grids", "num_cols INTEGER DEFAULT NULL"},
        {9, "grids", "special_actions_visible INTEGER DEFAULT 1"},
        {11, "grids", "grid_switcher_visible INTEGER DEFAULT 1"},
        {10, "dropbars",
         "id INTEGER PRIMARY KEY AUTOINCREMENT, grid_id INTEGER REFERENCES grids(id), title "
         "TEXT, name TEXT, icon BLOB, locked INTEGER DEFAULT 0, position INTEGER DEFAULT 0"},
        {10, "dropbar_items",
         "id INTEGER PRIMARY KEY AUTOINCREMENT, dropbar_id INTEGER REFERENCES dropbars(id), "
         "type TEXT, bookmark_data BLOB, text_content TEXT, text_file_path TEXT, position "
         "INTEGER DEFAULT 0"},
        {0, nullptr,
         "INSERT INTO categories (id, name) VALUES (1, 'Default Actions'), (2, 'Installed "
         "Actions'), (3, 'My Apps Folder');"
         "INSERT INTO actions (id, name, type, position, category_id, bundled_icon, "
         "using_default_icon) VALUES (1, 'Move to Docs', 'Move Files', 0, 1, NULL, 1), (2, "
         "'Uploader', 'SFTP Upload', 0, 2, 'upload', 0);"
         "INSERT INTO action_variables VALUES (1, 'path', '/home/u/Docs', NULL), (1, "
         "'scoped_bookmark', NULL, X'0102'), (2, 'server', 'example.org', NULL)"},
        {4, nullptr,
         "INSERT INTO grids (name) VALUES ('Main Grid'), ('Second'); UPDATE categories SET "
         "grid_id = 1"},
        // Orders a migration from 4 would not produce, so a step that ran again shows.
        {5, nullptr,
         "UPDATE grids SET display_order = 7 WHERE id = 1; UPDATE grids SET display_order = 3 "
         "WHERE id = 2"},
        {6, nullptr, "UPDATE grids SET grid_size = 90.0 WHERE id = 2"},
        {7, nullptr,
         "UPDATE categories SET display_order = CASE id WHEN 1 THEN 4 WHEN 3 THEN 9 "
         "ELSE 0 END"},
        {10, nullptr,
         "INSERT INTO dropbars (grid_id, title) VALUES (1, 'Shelf'); INSERT INTO dropbar_items "
         "(dropbar_id, type, text_content) VALUES (1, 'text', 'kept')"},
    };
    QMap<QString, QStringList> tables;
    QStringList statements;
    for (const Step& step : steps) {
        if (step.since <= version) {
            (step.table ? tables[QString::fromLatin1(step.table)] : statements)
                << QString::fromLatin1(step.text);
        }
    }
    for (auto it = tables.cbegin(); it != tables.cend(); ++it) {
        statements.prepend(QStringLiteral("CREATE TABLE %1 (%2)").arg(it.key(), it->join(u',')));
    }
    if (version > 0) {
        statements << QStringLiteral("PRAGMA user_version = %1").arg(version);
    }
    QFile::remove(path);
    SqliteConnection db;
    ASSERT_TRUE(db.open(path, true));
    for (const QString& statement : statements) {
        EXPECT_TRUE(db.execute(statement)) << db.lastErrorMessage().toStdString();
    }
}

QStringList schemaOf(const QString& path)
{
    return sqlColumn(
        path, QStringLiteral("SELECT m.name || '.' || p.name || ' ' || upper(p.type) || '|' || "
                             "ifnull(p.dflt_value, '') FROM sqlite_master m, "
                             "pragma_table_info(m.name) p WHERE m.type = 'table' AND m.name NOT "
                             "LIKE 'sqlite_%' ORDER BY 1"));
}

QStringList sqlColumn(const QString& path, const QString& sql)
{
    SqliteConnection db;
    EXPECT_TRUE(db.open(path)) << path.toStdString();
    const std::optional<SqlRows> rows = db.query(sql);
    EXPECT_TRUE(rows) << "query failed: " << sql.toStdString();
    QStringList values;
    for (const SqlRow& row : rows.value_or(SqlRows{})) {
        values << (SqliteConnection::isNull(row.first()) ? QStringLiteral("NULL")
                                                         : row.first().toString());
    }
    return values;
}

QString sqlValue(const QString& path, const QString& sql)
{
    return sqlColumn(path, sql).value(0);
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
    if (m_load) {
        loadInitialDatabase();
    }
}

void StoreTest::TearDown()
{
    processEvents();
    FileSystemInfo::setMountInfoPath({});
    m_engine.reset();
}

QString StoreTest::supportPath(const QString& relative) const
{
    return QDir(SupportPaths::applicationSupportDirectory()).filePath(relative);
}

void StoreTest::loadInitialDatabase()
{
    ASSERT_FALSE(GridDatabase::initialDatabaseResourcePath().isEmpty())
        << "the build did not generate the initial database";
    ASSERT_TRUE(db().loadDatabase());
    ASSERT_TRUE(db().requiredTablesExist());
}

void StoreTest::mountAs(const QString& folder, const char* type)
{
    FileSystemInfo::setMountInfoPath(m_engine->home().writeFile(
        QStringLiteral("mountinfo"),
        QStringLiteral("22 1 8:1 / / rw - ext4 /dev/sda1 rw\n"
                       "95 22 0:61 / %1 rw - %2 server:/x rw\n")
            .arg(QFileInfo(folder).canonicalFilePath(), QString::fromLatin1(type))
            .toUtf8()));
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
