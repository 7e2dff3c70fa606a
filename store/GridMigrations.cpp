#include "core/FileOperations.h"
#include "core/Log.h"
#include "core/Settings.h"
#include "store/GridDatabase.h"
#include "store/StoreContext.h"

#include <QFile>

#include <sqlite3.h>

namespace {

const QString GridIconSizeKey = QStringLiteral("GridIconSize");

// Only logical failures of a migration step are let pass ("duplicate column" on a file that
// was stamped too low); a failing disk or a damaged file stops the whole migration.
bool isLogicalFailure(int code)
{
    const int primary = code & 0xff;
    return primary == SQLITE_ERROR || primary == SQLITE_CONSTRAINT;
}

struct MigrationStep {
    int toVersion;
    QString sql;
    bool schema;
    QVariantList arguments;
};

const QList<MigrationStep>& migrationSteps()
{
    static const QList<MigrationStep> steps = {
        {2,
         QStringLiteral(
             "UPDATE categories SET name = 'Actions' WHERE name = 'Installed Actions' and id = 2"),
         false,
         {}},
        {3, QStringLiteral("ALTER TABLE actions ADD COLUMN 'services_key' TEXT"), true, {}},
        {4,
         QStringLiteral("CREATE TABLE IF NOT EXISTS grids (id INTEGER PRIMARY KEY AUTOINCREMENT, "
                        "name TEXT)"),
         true,
         {}},
        {4,
         QStringLiteral("ALTER TABLE categories ADD COLUMN 'grid_id' INTEGER REFERENCES grids(id)"),
         true,
         {}},
        {4,
         QStringLiteral("INSERT INTO grids (name) VALUES (?)"),
         false,
         {QStringLiteral("Main Grid")}},
        {4, QStringLiteral("UPDATE categories SET grid_id = 1"), false, {}},
        {5,
         QStringLiteral("ALTER TABLE grids ADD COLUMN 'display_order' INTEGER DEFAULT 0"),
         true,
         {}},
        {5, QStringLiteral("UPDATE grids SET display_order = id - 1"), false, {}},
        {6, QStringLiteral("ALTER TABLE grids ADD COLUMN 'grid_size' REAL DEFAULT 70.0"), true, {}},
        // The GridIconSize copy of version 6 is added by migrateDatabase() itself.
        {7,
         QStringLiteral("ALTER TABLE categories ADD COLUMN 'display_order' INTEGER DEFAULT 0"),
         true,
         {}},
        {7, QStringLiteral("UPDATE categories SET display_order = id - 1"), false, {}},
        {8,
         QStringLiteral("ALTER TABLE grids ADD COLUMN 'num_cols' INTEGER DEFAULT NULL"),
         true,
         {}},
        {9,
         QStringLiteral("ALTER TABLE grids ADD COLUMN 'special_actions_visible' INTEGER DEFAULT 1"),
         true,
         {}},
        {10,
         QStringLiteral("CREATE TABLE IF NOT EXISTS dropbars (id INTEGER PRIMARY KEY "
                        "AUTOINCREMENT, grid_id INTEGER REFERENCES grids(id), title TEXT, name "
                        "TEXT, icon BLOB, locked INTEGER DEFAULT 0, position INTEGER DEFAULT 0)"),
         true,
         {}},
        {10,
         QStringLiteral("CREATE TABLE IF NOT EXISTS dropbar_items (id INTEGER PRIMARY KEY "
                        "AUTOINCREMENT, dropbar_id INTEGER REFERENCES dropbars(id), type TEXT, "
                        "bookmark_data BLOB, text_content TEXT, text_file_path TEXT, position "
                        "INTEGER DEFAULT 0)"),
         true,
         {}},
        {11,
         QStringLiteral("ALTER TABLE grids ADD COLUMN 'grid_switcher_visible' INTEGER DEFAULT 1"),
         true,
         {}},
    };
    return steps;
}

} // namespace

QString GridDatabase::backupPathForVersion(int version) const
{
    return m_dbPath + QStringLiteral(".version-%1.backup").arg(version);
}

void GridDatabase::setMigrationStepObserver(std::function<void(int)> observer)
{
    m_migrationStepObserver = std::move(observer);
}

bool GridDatabase::backUpBeforeMigration(int version)
{
    const QString backup = backupPathForVersion(version);
    const QString partial = backup + QStringLiteral(".partial");
    QFile::remove(partial);
    // A consistent snapshot even while another process writes, journal files included.
    if (!m_connection.update(QStringLiteral("VACUUM INTO ?"), {partial})) {
        QFile::remove(partial);
        return false;
    }
    if (!FileOperations::syncFile(partial) ||
        ::rename(QFile::encodeName(partial).constData(), QFile::encodeName(backup).constData()) !=
            0) {
        QFile::remove(partial);
        return false;
    }
    return true;
}

bool GridDatabase::runStep(const QString& sql, const QVariantList& arguments, bool schema)
{
    const bool ok = schema ? m_connection.execute(sql) : m_connection.update(sql, arguments);
    if (ok) {
        return true;
    }
    // SQLite ends the transaction itself after some errors; going on would commit half.
    return isLogicalFailure(m_connection.lastErrorCode()) && m_connection.inTransaction();
}

bool GridDatabase::migrateDatabase()
{
    if (!m_connection.isOpen()) {
        return false;
    }
    const auto read = m_connection.scalar(QStringLiteral("PRAGMA user_version"));
    if (!read) {
        Log::error(QStringLiteral("Cannot read the database version: %1")
                       .arg(m_connection.lastErrorMessage()));
        return false;
    }
    const qint64 version = SqliteConnection::toInteger(*read, 0);
    if (version == CurrentVersion) {
        return true;
    }
    if (version < CurrentVersion) {
        Log::info(QStringLiteral("Migrating database from version %1 to %2")
                      .arg(static_cast<uint>(version))
                      .arg(CurrentVersion));
    }
    // The shipped database (version 0) carries the current schema and needs no copy.
    if (version != 0 && !backUpBeforeMigration(static_cast<int>(version))) {
        Log::error(QStringLiteral("Not migrating the database: no copy of it could be made (%1)")
                       .arg(m_connection.lastErrorMessage()));
        return false;
    }
    SqliteWriteTransaction transaction(m_connection);
    if (!transaction.isActive()) {
        return false;
    }
    if (version >= 1 && version <= 10) {
        int lastObserved = 0;
        for (const MigrationStep& step : migrationSteps()) {
            if (version >= step.toVersion) {
                continue;
            }
            if (m_migrationStepObserver && step.toVersion != lastObserved) {
                lastObserved = step.toVersion;
                m_migrationStepObserver(step.toVersion);
            }
            if (!runStep(step.sql, step.arguments, step.schema)) {
                Log::error(QStringLiteral("Database migration to version %1 failed: %2")
                               .arg(step.toVersion)
                               .arg(m_connection.lastErrorMessage()));
                return false;
            }
            if (step.toVersion == 6 && step.schema) {
                const qint64 iconSize = context().settings.integerValue(GridIconSizeKey);
                if (iconSize >= 1 && !runStep(QStringLiteral("UPDATE grids SET grid_size = ?"),
                                              {static_cast<double>(iconSize)}, false)) {
                    return false;
                }
            }
        }
    }
    if (!m_connection.execute(QStringLiteral("PRAGMA user_version = %1").arg(CurrentVersion))) {
        return false;
    }
    return transaction.commit();
}
