#include "store/GridDatabase.h"

#include "core/AlertHelper.h"
#include "core/FileOperations.h"
#include "core/Log.h"
#include "core/NotificationCenter.h"
#include "core/Settings.h"
#include "core/SupportPaths.h"
#include "platform/FileSystemInfo.h"
#include "store/GridAction.h"
#include "store/GridStoreHooks.h"
#include "store/Icons.h"
#include "store/StoreContext.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

namespace {

const QString SupportSentence =
    QStringLiteral("Please report this at https://github.com/skelvo/skelvo/issues.");
const QString GridIconSizeKey = QStringLiteral("GridIconSize");

std::unique_ptr<GridDatabase>& sharedInstance()
{
    static std::unique_ptr<GridDatabase> instance;
    return instance;
}

QString sharedDbPath()
{
    return QDir(SupportPaths::applicationSupportDirectory())
        .filePath(GridDatabase::DatabaseFileName);
}

QString nilIfEmpty(const QString& path)
{
    return path.isEmpty() ? QStringLiteral("nil") : path;
}

bool syncFile(const QString& path)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const bool synced = ::fsync(fd) == 0;
    ::close(fd);
    return synced;
}

// Copies `source` to `destination` without ever leaving a half-written file there: the copy
// is written beside it, synced, and then linked into place, which fails if the destination
// appeared meanwhile instead of replacing it.
bool copyIntoPlace(const QString& source, const QString& destination, QString* error)
{
    const QString partial = destination + QStringLiteral(".partial");
    QFile::remove(partial);
    QFile in(source);
    if (!in.copy(partial)) {
        *error =
            QStringLiteral("Could not copy %1 to %2: %3").arg(source, partial, in.errorString());
        QFile::remove(partial);
        return false;
    }
    QFile::setPermissions(partial, QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup |
                                       QFile::ReadOther);
    if (!syncFile(partial)) {
        *error = QStringLiteral("Could not write %1: %2")
                     .arg(partial, QString::fromLocal8Bit(std::strerror(errno)));
        QFile::remove(partial);
        return false;
    }
    const QByteArray from = QFile::encodeName(partial);
    const QByteArray to = QFile::encodeName(destination);
    if (::link(from.constData(), to.constData()) != 0) {
        const int linkError = errno;
        // Some network file systems have no hard links; there, check and rename.
        if (linkError == EEXIST || QFileInfo::exists(destination) ||
            ::rename(from.constData(), to.constData()) != 0) {
            *error = linkError == EEXIST || QFileInfo::exists(destination)
                         ? QStringLiteral("%1 already exists").arg(destination)
                         : QString::fromLocal8Bit(std::strerror(errno));
            QFile::remove(partial);
            return false;
        }
        return true;
    }
    ::unlink(from.constData());
    return true;
}

void showAlertLater(AlertHelper& alerts, const QString& title, const QString& message)
{
    GridStore::runOnNextTurn(
        [&alerts, title, message] { alerts.showCriticalAlertWithTitle(title, message); });
}

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

qint64 toInteger(const QVariant& value, qint64 fallback)
{
    if (SqliteConnection::isNull(value)) {
        return fallback;
    }
    bool ok = false;
    const qint64 number = value.toLongLong(&ok);
    return ok ? number : fallback;
}

} // namespace

// --- Opening and life cycle

GridDatabase& GridDatabase::sharedGridDatabase()
{
    auto& instance = sharedInstance();
    if (!instance) {
        instance = std::make_unique<GridDatabase>(sharedDbPath());
    }
    return *instance;
}

void GridDatabase::reopenShared()
{
    const StoreContext* context = sharedInstance() ? sharedInstance()->m_context : nullptr;
    sharedInstance() = std::make_unique<GridDatabase>(sharedDbPath());
    sharedInstance()->m_context = context;
}

const StoreContext& GridDatabase::context() const
{
    if (!m_context) {
        qFatal("The grid store is used before the engine handed it a context");
    }
    return *m_context;
}

GridDatabase::GridDatabase(QString dbPath, QString initialDbPath)
    : m_dbPath(std::move(dbPath))
    , m_initialDbPath(std::move(initialDbPath))
{}

GridDatabase::~GridDatabase() = default;

QString GridDatabase::initialDatabaseResourcePath()
{
    QStringList candidates;
    candidates << QDir(SupportPaths::resourcesDirectory()).filePath(DatabaseFileName);
    // A build tree generates the file beside its resources link rather than into the sources.
    candidates << QDir(SupportPaths::executableDirectory())
                      .absoluteFilePath(QStringLiteral("../share/skelvo-generated/") +
                                        DatabaseFileName);
    for (const QString& candidate : candidates) {
        if (QFileInfo(candidate).isFile()) {
            return QDir::cleanPath(candidate);
        }
    }
    return {};
}

bool GridDatabase::dbExists() const
{
    return QFileInfo::exists(m_dbPath);
}

bool GridDatabase::loadDatabase()
{
    if (!dbExists()) {
        const QString supportFolder = QFileInfo(m_dbPath).absolutePath();
        const QString legacy = QDir(supportFolder).filePath(LegacyDatabaseFileName);
        if (QFileInfo::exists(legacy)) {
            QString error;
            if (copyIntoPlace(legacy, m_dbPath, &error)) {
                Log::info(QStringLiteral("Migrated legacy database from %1 to %2")
                              .arg(LegacyDatabaseFileName, QFileInfo(m_dbPath).fileName()));
                // The new generation's icon cache is rebuilt from the migrated actions.
                FileOperations::removeRecursively(
                    QDir(supportFolder).filePath(QStringLiteral("Icons/5")));
            } else {
                Log::error(
                    QStringLiteral("Error copying legacy database to new location: %1").arg(error));
                copyInInitalDb();
            }
        } else {
            copyInInitalDb();
        }
    }
    if (!openConnection()) {
        Log::error(QStringLiteral("Error opening database!"));
        return false;
    }
    migrateDatabase();
    context().notifications.post(Notifications::GridsChanged);
    return true;
}

bool GridDatabase::openConnection()
{
    // Never created here: a missing file means the copy failed, and an empty database in
    // its place would hide that.
    if (!m_connection.open(m_dbPath, false)) {
        return false;
    }
    configureConnection();
    return true;
}

void GridDatabase::configureConnection()
{
    m_connection.setBusyTimeout(BusyTimeoutMilliseconds);
    // WAL needs shared memory that network file systems do not provide; there the classic
    // rollback journal is the safe choice. FULL syncs make a reported commit survive a
    // power cut in both modes; the store writes too rarely for the cost to matter.
    const QString wanted = FileSystemInfo::isOnNetworkFileSystem(m_dbPath)
                               ? QStringLiteral("delete")
                               : QStringLiteral("wal");
    // Switching needs the file to itself; another process that has it open (`sk`, a second
    // start) has already switched it, so only a file in the other mode is asked to change.
    if (journalMode() != wanted) {
        m_connection.query(QStringLiteral("PRAGMA journal_mode=") + wanted);
    }
    m_connection.execute(QStringLiteral("PRAGMA synchronous=FULL"));
}

QString GridDatabase::journalMode()
{
    const auto mode = m_connection.scalar(QStringLiteral("PRAGMA journal_mode"));
    return mode ? mode->toString().toLower() : QString();
}

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
    if (!syncFile(partial) || ::rename(QFile::encodeName(partial).constData(),
                                       QFile::encodeName(backup).constData()) != 0) {
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
    const qint64 version = toInteger(*read, 0);
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

bool GridDatabase::copyInInitalDb()
{
    const QString source = m_initialDbPath;
    const QString destination = m_dbPath;
    if (source.isEmpty() || destination.isEmpty()) {
        Log::error(QStringLiteral("Error creating initial actions database: source path (%1) or "
                                  "destination path (%2) is nil")
                       .arg(nilIfEmpty(source), nilIfEmpty(destination)));
        showAlertLater(context().alerts, QStringLiteral("Database Initialization Error"),
                       QStringLiteral("Skelvo was unable to initialize its database.\n\nSource "
                                      "path: %1\nDestination path: %2\n\n")
                               .arg(nilIfEmpty(source), nilIfEmpty(destination)) +
                           SupportSentence);
        return false;
    }
    QDir().mkpath(QFileInfo(destination).absolutePath());
    QString error;
    if (!copyIntoPlace(source, destination, &error)) {
        Log::error(QStringLiteral("Error creating initial actions database: %1").arg(error));
        showAlertLater(
            context().alerts, QStringLiteral("Database Initialization Error"),
            QStringLiteral("Skelvo was unable to copy its initial database.\n\n%1\n\n").arg(error) +
                SupportSentence);
        return false;
    }
    m_didCopyInitialDb = true;
    return true;
}

void GridDatabase::recreateDatabase()
{
    m_connection.close();
    // The user agreed to start over, but the old file may still hold their set-up: it is
    // moved aside with its journal rather than deleted.
    const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss"));
    const QString aside = m_dbPath + QStringLiteral(".damaged-") + stamp;
    if (dbExists()) {
        QFile file(m_dbPath);
        if (!file.rename(aside)) {
            Log::error(QStringLiteral("Error removing DB in recreateDatabase: %1")
                           .arg(file.errorString()));
        } else {
            Log::info(QStringLiteral("Kept the previous database as %1").arg(aside));
        }
    }
    for (const QString& suffix : {QStringLiteral("-wal"), QStringLiteral("-journal")}) {
        if (QFileInfo::exists(m_dbPath + suffix)) {
            QFile::rename(m_dbPath + suffix, aside + suffix);
        }
    }
    QFile::remove(m_dbPath + QStringLiteral("-shm"));
    copyInInitalDb();
    loadDatabase();
    if (context().hooks.createFirstLaunchGridActions) {
        context().hooks.createFirstLaunchGridActions();
    }
}

void GridDatabase::handleDBCorrupt()
{
    GridStore::runOnNextTurn([this] {
        Alert alert;
        alert.style = Alert::Style::Critical;
        alert.title = QStringLiteral("Skelvo Database Missing or Corrupt");
        alert.message = QStringLiteral(
            "It appears that your Skelvo database is either missing or corrupt.\n\nYou can "
            "attempt to recreate the database, but please note that this will result in the loss "
            "of any actions you have previously set up.");
        alert.buttons = {QStringLiteral("Close"), QStringLiteral("Recreate Database")};
        context().alerts.runAlert(alert, [this](int button) {
            if (button == 1) {
                recreateDatabase();
                GridStore::runOnNextTurn([this] {
                    if (context().hooks.prepareGrid) {
                        context().hooks.prepareGrid();
                    }
                });
                return;
            }
            if (context().hooks.quitApplication) {
                context().hooks.quitApplication();
            } else {
                QCoreApplication::quit();
            }
        });
    });
}

bool GridDatabase::requiredTablesExist()
{
    const auto count = m_connection.scalar(
        QStringLiteral("SELECT COUNT(*) FROM sqlite_master WHERE type = 'table' AND name IN "
                       "('grids', 'categories')"));
    return count && toInteger(*count, 0) == 2;
}

bool GridDatabase::vacuum()
{
    if (m_connection.inTransaction()) {
        // VACUUM cannot run inside a transaction; the outermost write runs it afterwards.
        m_vacuumPending = true;
        return true;
    }
    m_vacuumPending = false;
    return m_connection.execute(QStringLiteral("VACUUM"));
}

SqlRows GridDatabase::runQuery(const QString& sql, const QVariantList& arguments)
{
    return m_connection.query(sql, arguments).value_or(SqlRows{});
}

// --- Helpers

qint64 GridDatabase::integerOf(const QString& sql, const QVariantList& arguments, qint64 fallback)
{
    const auto value = m_connection.scalar(sql, arguments);
    return value ? toInteger(*value, fallback) : fallback;
}

qint64 GridDatabase::nextOrder(const QString& sql, const QVariantList& arguments)
{
    const auto value = m_connection.scalar(sql, arguments);
    if (!value || SqliteConnection::isNull(*value)) {
        return 0;
    }
    return toInteger(*value, -1) + 1;
}

bool GridDatabase::write(const std::function<bool()>& body)
{
    SqliteWriteTransaction transaction(m_connection);
    if (!transaction.isActive()) {
        return false;
    }
    if (!body() || !transaction.commit()) {
        return false;
    }
    if (transaction.ownsTransaction() && m_vacuumPending) {
        vacuum();
    }
    return true;
}

// --- Grids

SqlRows GridDatabase::getGrids()
{
    return runQuery(QStringLiteral("SELECT * FROM grids ORDER BY display_order"));
}

GridId GridDatabase::addGridWithName(const QString& name)
{
    GridId gridId = 0;
    const bool ok = write([&] {
        const qint64 order = nextOrder(QStringLiteral("SELECT MAX(display_order) FROM grids"), {});
        if (!m_connection.update(
                QStringLiteral("INSERT INTO grids (name, display_order) VALUES (?, ?)"),
                {name, order})) {
            return false;
        }
        gridId = m_connection.lastInsertRowId();
        return true;
    });
    if (!ok) {
        return 0;
    }
    context().notifications.post(Notifications::GridsChanged);
    return gridId;
}

bool GridDatabase::updateGrid(GridId gridId, const QString& name, int order)
{
    return write([&] {
        return m_connection.update(
            QStringLiteral("UPDATE grids SET name = ?, display_order = ? WHERE id = ?"),
            {name, order, gridId});
    });
}

bool GridDatabase::deleteGrid(GridId gridId)
{
    const bool ok = write([&] {
        if (!m_connection.update(QStringLiteral("DELETE FROM dropbar_items WHERE dropbar_id IN "
                                                "(SELECT id FROM dropbars WHERE grid_id = ?)"),
                                 {gridId}) ||
            !m_connection.update(QStringLiteral("DELETE FROM dropbars WHERE grid_id = ?"),
                                 {gridId})) {
            return false;
        }
        for (const SqlRow& category : categoriesForGrid(gridId)) {
            if (!deleteCategory(toInteger(category.value(QStringLiteral("id")), 0))) {
                return false;
            }
        }
        return m_connection.update(QStringLiteral("DELETE FROM grids WHERE id = ?"), {gridId});
    });
    if (ok) {
        context().notifications.post(Notifications::GridsChanged);
    }
    return ok;
}

GridId GridDatabase::selectedGridId()
{
    const GridId stored = context().settings.integerValue(Settings::SelectedGridId);
    if (stored >= 1 &&
        integerOf(QStringLiteral("SELECT id FROM grids WHERE id = ?"), {stored}, 0) == stored) {
        return stored;
    }
    const SqlRows grids = getGrids();
    if (grids.isEmpty()) {
        return stored;
    }
    const GridId first = toInteger(grids.first().value(QStringLiteral("id")), 0);
    setSelectedGridId(first);
    return first;
}

void GridDatabase::setSelectedGridId(GridId gridId)
{
    context().settings.setValue(Settings::SelectedGridId, gridId);
}

std::optional<SqlRow> GridDatabase::selectedGrid()
{
    const SqlRows rows =
        runQuery(QStringLiteral("SELECT * FROM grids WHERE id = (?)"), {selectedGridId()});
    if (rows.isEmpty()) {
        return std::nullopt;
    }
    return rows.first();
}

double GridDatabase::gridSizeForGrid(GridId gridId)
{
    const auto value =
        m_connection.scalar(QStringLiteral("SELECT grid_size FROM grids WHERE id = ?"), {gridId});
    if (!value || SqliteConnection::isNull(*value)) {
        return 0.0;
    }
    return value->toDouble();
}

bool GridDatabase::setGridSize(double size, GridId gridId)
{
    return write([&] {
        return m_connection.update(QStringLiteral("UPDATE grids SET grid_size = ? WHERE id = ?"),
                                   {size, gridId});
    });
}

double GridDatabase::gridSizeForSelectedGrid()
{
    return gridSizeForGrid(selectedGridId());
}

bool GridDatabase::setGridSizeForSelectedGrid(double size)
{
    return setGridSize(size, selectedGridId());
}

int GridDatabase::numColsForGrid(GridId gridId)
{
    return static_cast<int>(
        integerOf(QStringLiteral("SELECT num_cols FROM grids WHERE id = ?"), {gridId}, 0));
}

bool GridDatabase::setNumCols(int numCols, GridId gridId)
{
    return write([&] {
        if (numCols < 1) {
            return m_connection.update(
                QStringLiteral("UPDATE grids SET num_cols = NULL WHERE id = ?"), {gridId});
        }
        return m_connection.update(QStringLiteral("UPDATE grids SET num_cols = ? WHERE id = ?"),
                                   {numCols, gridId});
    });
}

bool GridDatabase::readsAsVisible(const QString& sql, GridId gridId)
{
    const auto rows = m_connection.query(sql, {gridId});
    if (!rows || rows->isEmpty()) {
        return true;
    }
    const QVariant value = rows->first().first();
    return SqliteConnection::isNull(value) || toInteger(value, 0) == 1;
}

bool GridDatabase::specialActionsVisibleForGrid(GridId gridId)
{
    return readsAsVisible(QStringLiteral("SELECT special_actions_visible FROM grids WHERE id = ?"),
                          gridId);
}

bool GridDatabase::setSpecialActionsVisible(bool visible, GridId gridId)
{
    return write([&] {
        return m_connection.update(
            QStringLiteral("UPDATE grids SET special_actions_visible = ? WHERE id = ?"),
            {visible ? 1 : 0, gridId});
    });
}

bool GridDatabase::gridSwitcherVisibleForGrid(GridId gridId)
{
    return readsAsVisible(QStringLiteral("SELECT grid_switcher_visible FROM grids WHERE id = ?"),
                          gridId);
}

bool GridDatabase::setGridSwitcherVisible(bool visible, GridId gridId)
{
    return write([&] {
        return m_connection.update(
            QStringLiteral("UPDATE grids SET grid_switcher_visible = ? WHERE id = ?"),
            {visible ? 1 : 0, gridId});
    });
}

// --- Categories

SqlRows GridDatabase::getCategories()
{
    return runQuery(QStringLiteral("SELECT * FROM categories"));
}

SqlRows GridDatabase::categoriesForGrid(GridId gridId)
{
    return runQuery(
        QStringLiteral("SELECT * FROM categories WHERE grid_id = (?) ORDER BY display_order"),
        {gridId});
}

CategoryId GridDatabase::addCategoryWithName(const QString& name, GridId gridId)
{
    CategoryId categoryId = 0;
    const bool ok = write([&] {
        const qint64 order =
            nextOrder(QStringLiteral("SELECT MAX(display_order) FROM categories WHERE grid_id = ?"),
                      {gridId});
        if (!m_connection.update(QStringLiteral("INSERT INTO categories (name, grid_id, "
                                                "display_order) VALUES (?, ?, ?)"),
                                 {name, gridId, order})) {
            return false;
        }
        categoryId = m_connection.lastInsertRowId();
        return true;
    });
    return ok ? categoryId : 0;
}

bool GridDatabase::updateCategory(CategoryId categoryId, const QString& name)
{
    return write([&] {
        return m_connection.update(QStringLiteral("UPDATE categories SET name = ? WHERE id = ?"),
                                   {name, categoryId});
    });
}

bool GridDatabase::updateCategoryGridId(CategoryId categoryId, GridId gridId)
{
    return write([&] {
        return m_connection.update(QStringLiteral("UPDATE categories SET grid_id = ? WHERE id = ?"),
                                   {gridId, categoryId});
    });
}

bool GridDatabase::updateCategoryDisplayOrder(CategoryId categoryId, int displayOrder)
{
    return write([&] {
        return m_connection.update(
            QStringLiteral("UPDATE categories SET display_order = ? WHERE id = ?"),
            {displayOrder, categoryId});
    });
}

bool GridDatabase::deleteCategory(CategoryId categoryId)
{
    return write([&] {
        for (const GridActionPtr& action : getActionsForCategoryId(categoryId)) {
            if (!deleteAction(action->aId)) {
                return false;
            }
        }
        return m_connection.update(QStringLiteral("DELETE FROM categories WHERE id = ?"),
                                   {categoryId});
    });
}

CategoryId GridDatabase::getFirstCategoryIdForSelectedGrid()
{
    return integerOf(
        QStringLiteral("SELECT id FROM categories WHERE grid_id = ? ORDER BY id LIMIT 1"),
        {selectedGridId()}, 0);
}

CategoryId GridDatabase::getOrCreateFirstCategoryIdForSelectedGrid()
{
    const CategoryId first = getFirstCategoryIdForSelectedGrid();
    if (first != 0) {
        return first;
    }
    const CategoryId created = addCategoryWithName(QStringLiteral("Actions"), selectedGridId());
    if (created != 0) {
        context().notifications.post(Notifications::GridCategoryCreated);
    }
    return created;
}

CategoryId GridDatabase::placementCategory(const QString& sql)
{
    const CategoryId found = integerOf(sql, {selectedGridId()}, 0);
    return found != 0 ? found : getOrCreateFirstCategoryIdForSelectedGrid();
}

CategoryId GridDatabase::getActionsCategoryIdForSelectedGrid()
{
    return placementCategory(QStringLiteral("SELECT id FROM categories WHERE (name = 'Actions' OR "
                                            "name = 'actions') AND grid_id = ? LIMIT 1"));
}

CategoryId GridDatabase::getAppsCategoryIdForSelectedGrid()
{
    return placementCategory(QStringLiteral(
        "SELECT id FROM categories WHERE (LOWER(name) LIKE '%%apps%%' OR LOWER(name) LIKE "
        "'%%applications%%') AND grid_id = ? LIMIT 1"));
}

CategoryId GridDatabase::getFoldersCategoryIdForSelectedGrid()
{
    return placementCategory(QStringLiteral(
        "SELECT id FROM categories WHERE LOWER(name) LIKE '%%folder%%' AND grid_id = ? LIMIT 1"));
}

QStringList GridDatabase::folderActionNames()
{
    return {QStringLiteral("Move Files"), QStringLiteral("Copy Files"),
            QStringLiteral("Rename & Move Files"), QStringLiteral("Rename & Copy Files")};
}

QStringList GridDatabase::coreFileActionNames()
{
    return QStringList{QStringLiteral("Open Application")} + folderActionNames();
}

// --- Actions

qint64 GridDatabase::getNumActions()
{
    return integerOf(QStringLiteral("SELECT COUNT(*) FROM actions"), {}, 0);
}

qint64 GridDatabase::getNumActionsWithWhereClause(const QString& whereClause)
{
    return integerOf(QStringLiteral("SELECT COUNT(*) FROM actions WHERE ") + whereClause, {}, 0);
}

qint64 GridDatabase::getNumActionsForCategoryId(CategoryId categoryId)
{
    return integerOf(QStringLiteral("SELECT COUNT(*) FROM actions WHERE category_id = (?)"),
                     {categoryId}, 0);
}

int GridDatabase::getNextPositionForCategoryId(CategoryId categoryId)
{
    return static_cast<int>(nextOrder(
        QStringLiteral("SELECT MAX(position) FROM actions WHERE category_id = (?)"), {categoryId}));
}

QList<GridActionPtr> GridDatabase::actionsFrom(const QString& sql, const QVariantList& arguments)
{
    QList<GridActionPtr> actions;
    for (const SqlRow& row : runQuery(sql, arguments)) {
        actions << gridActionFromRowDict(row);
    }
    return actions;
}

GridActionPtr GridDatabase::getGridActionWithType(const QString& type)
{
    const auto actions =
        actionsFrom(QStringLiteral("SELECT * FROM actions WHERE type = (?) LIMIT 1"), {type});
    return actions.isEmpty() ? nullptr : actions.first();
}

GridActionPtr GridDatabase::getGridActionWithName(const QString& name)
{
    const auto actions =
        actionsFrom(QStringLiteral("SELECT * FROM actions WHERE name = (?) LIMIT 1"), {name});
    return actions.isEmpty() ? nullptr : actions.first();
}

GridActionPtr GridDatabase::getGridActionWithId(ActionId actionId)
{
    const auto actions =
        actionsFrom(QStringLiteral("SELECT * FROM actions WHERE id = (?)"), {actionId});
    if (actions.isEmpty()) {
        Log::info(QStringLiteral("GridAction with ID %1 not found").arg(actionId));
        return nullptr;
    }
    return actions.first();
}

QList<GridActionPtr> GridDatabase::getActionsForCategoryId(CategoryId categoryId)
{
    return actionsFrom(
        QStringLiteral("SELECT * FROM actions WHERE category_id = (?) ORDER BY position"),
        {categoryId});
}

QList<GridActionPtr> GridDatabase::getAllActions()
{
    return actionsFrom(QStringLiteral("SELECT * FROM actions ORDER BY position"), {});
}

bool GridDatabase::hasAddedActionWithType(const QString& type)
{
    for (const SqlRow& category : categoriesForGrid(selectedGridId())) {
        for (const GridActionPtr& action :
             getActionsForCategoryId(toInteger(category.value(QStringLiteral("id")), 0))) {
            if (action->type == type) {
                return true;
            }
        }
    }
    return false;
}

GridActionPtr GridDatabase::gridActionFromRowDict(const SqlRow& row)
{
    auto action = std::make_shared<GridAction>();
    const auto text = [&](const char* key) {
        const QVariant value = row.value(QString::fromLatin1(key));
        return SqliteConnection::isNull(value) ? QString() : value.toString();
    };
    action->name = text("name");
    action->servicesKey = text("services_key");
    action->type = text("type");
    action->bundledIcon = text("bundled_icon");
    action->position = static_cast<int>(toInteger(row.value(QStringLiteral("position")), 0));
    action->categoryId = toInteger(row.value(QStringLiteral("category_id")), 0);
    action->aId = toInteger(row.value(QStringLiteral("id")), 0);
    action->usingDefaultIcon = toInteger(row.value(QStringLiteral("using_default_icon")), 0) != 0;
    action->extraVariables = getExtraVariablesForActionId(action->aId);
    action->icon = context().icons.getIcon(*action);
    return action;
}

ActionId GridDatabase::addAction(const GridAction& action,
                                 const GridActionVariables& extraVariables)
{
    ActionId actionId = 0;
    const bool ok = write([&] {
        if (!m_connection.update(
                QStringLiteral("INSERT INTO actions (name, services_key, type, position, "
                               "category_id, bundled_icon, using_default_icon) VALUES (:name, "
                               ":services_key, :type, :position, :category_id, :bundled_icon, "
                               ":using_default_icon)"),
                action.actionDict())) {
            return false;
        }
        actionId = m_connection.lastInsertRowId();
        return setExtraVariablesForActionId(actionId, extraVariables);
    });
    return ok ? actionId : 0;
}

bool GridDatabase::updateAction(const GridAction& action, const GridActionVariables& extraVariables)
{
    QVariantMap dict = action.actionDict();
    dict.insert(QStringLiteral("id"), action.aId);
    return write([&] {
        return m_connection.update(
                   QStringLiteral("UPDATE actions SET name=:name, services_key=:services_key, "
                                  "type=:type, position=:position, category_id=:category_id, "
                                  "bundled_icon=:bundled_icon, "
                                  "using_default_icon=:using_default_icon WHERE id=:id"),
                   dict) &&
               setExtraVariablesForActionId(action.aId, extraVariables);
    });
}

bool GridDatabase::updateServicesKeyForActionId(ActionId actionId, const QString& servicesKey)
{
    return write([&] {
        return m_connection.update(
            QStringLiteral("UPDATE actions SET services_key = (?) WHERE id = (?)"),
            {servicesKey, actionId});
    });
}

bool GridDatabase::moveAction(ActionId actionId, CategoryId categoryId, int position)
{
    return write([&] {
        return m_connection.update(
            QStringLiteral("UPDATE actions SET category_id = ?, position = ? WHERE id = ?"),
            {categoryId, position, actionId});
    });
}

bool GridDatabase::deleteAction(ActionId actionId)
{
    const bool ok = write([&] {
        return m_connection.update(QStringLiteral("DELETE FROM actions WHERE id = (?)"),
                                   {actionId}) &&
               deleteExtraVariablesForActionId(actionId);
    });
    // Every deletion compacts the file (deferred to the end of an enclosing transaction).
    vacuum();
    return ok;
}

// --- Action variables

GridActionVariables GridDatabase::getExtraVariablesForActionId(ActionId actionId)
{
    GridActionVariables variables;
    for (const SqlRow& row : runQuery(
             QStringLiteral("SELECT * FROM action_variables WHERE action_id = (?)"), {actionId})) {
        const QVariant blob = row.value(QStringLiteral("variable_value_blob"));
        const QVariant text = row.value(QStringLiteral("variable_value"));
        QVariant value;
        if (!SqliteConnection::isNull(blob)) {
            value = blob.toByteArray();
        } else if (!SqliteConnection::isNull(text)) {
            value = text.toString();
        } else {
            value = SqliteConnection::nullValue();
        }
        variables.insert(row.value(QStringLiteral("variable_name")).toString(), value);
    }
    return variables;
}

bool GridDatabase::setExtraVariablesForActionId(ActionId actionId,
                                                const GridActionVariables& variables)
{
    return write([&] {
        if (!m_connection.update(
                QStringLiteral("DELETE FROM action_variables WHERE action_id = (?)"), {actionId})) {
            return false;
        }
        for (auto it = variables.begin(); it != variables.end(); ++it) {
            const bool binary = it.value().typeId() == QMetaType::QByteArray;
            const QString sql =
                binary ? QStringLiteral("INSERT INTO action_variables (action_id, variable_name, "
                                        "variable_value_blob) VALUES (?, ?, ?)")
                       : QStringLiteral("INSERT INTO action_variables (action_id, variable_name, "
                                        "variable_value) VALUES (?, ?, ?)");
            if (!m_connection.update(sql, {actionId, it.key(), it.value()})) {
                return false;
            }
        }
        return true;
    });
}

bool GridDatabase::deleteExtraVariablesForActionId(ActionId actionId)
{
    return write([&] {
        return m_connection.update(
            QStringLiteral("DELETE FROM action_variables WHERE action_id = (?)"), {actionId});
    });
}

QList<QByteArray> GridDatabase::getScopedBookmarks()
{
    QList<QByteArray> bookmarks;
    for (const SqlRow& row : runQuery(QStringLiteral(
             "SELECT * FROM action_variables WHERE variable_value_blob is not NULL"))) {
        bookmarks << row.value(QStringLiteral("variable_value_blob")).toByteArray();
    }
    return bookmarks;
}

// --- Drop Bars and their items

SqlRows GridDatabase::getDropbarsForGrid(GridId gridId)
{
    return runQuery(QStringLiteral("SELECT * FROM dropbars WHERE grid_id = ? ORDER BY position"),
                    {gridId});
}

DropbarId GridDatabase::addDropbarWithTitle(const QString& title, const QByteArray& icon,
                                            bool locked, GridId gridId)
{
    DropbarId dropbarId = 0;
    const bool ok = write([&] {
        const qint64 position = nextOrder(
            QStringLiteral("SELECT MAX(position) FROM dropbars WHERE grid_id = ?"), {gridId});
        if (!m_connection.update(QStringLiteral("INSERT INTO dropbars (grid_id, title, icon, "
                                                "locked, position) VALUES (?, ?, ?, ?, ?)"),
                                 {gridId, title, icon, locked ? 1 : 0, position})) {
            return false;
        }
        dropbarId = m_connection.lastInsertRowId();
        return true;
    });
    return ok ? dropbarId : 0;
}

bool GridDatabase::updateDropbar(DropbarId dropbarId, const QString& title, const QString& name,
                                 const QByteArray& icon, bool locked)
{
    return write([&] {
        return m_connection.update(
            QStringLiteral(
                "UPDATE dropbars SET title = ?, name = ?, icon = ?, locked = ? WHERE id = ?"),
            {title, name, icon, locked ? 1 : 0, dropbarId});
    });
}

bool GridDatabase::updateDropbarPositions(const QList<DropbarId>& dropbarIds, GridId gridId)
{
    return write([&] {
        for (qsizetype index = 0; index < dropbarIds.size(); ++index) {
            if (!m_connection.update(
                    QStringLiteral("UPDATE dropbars SET position = ? WHERE id = ? AND grid_id = ?"),
                    {index, dropbarIds.at(index), gridId})) {
                return false;
            }
        }
        return true;
    });
}

bool GridDatabase::deleteDropbar(DropbarId dropbarId)
{
    return write([&] {
        return deleteItemsForDropbar(dropbarId) &&
               m_connection.update(QStringLiteral("DELETE FROM dropbars WHERE id = ?"),
                                   {dropbarId});
    });
}

bool GridDatabase::moveDropbar(DropbarId dropbarId, GridId gridId)
{
    return write([&] {
        const qint64 position = nextOrder(
            QStringLiteral("SELECT MAX(position) FROM dropbars WHERE grid_id = ?"), {gridId});
        return m_connection.update(
            QStringLiteral("UPDATE dropbars SET grid_id = ?, position = ? WHERE id = ?"),
            {gridId, position, dropbarId});
    });
}

qint64 GridDatabase::getDropbarCountForGrid(GridId gridId)
{
    return integerOf(QStringLiteral("SELECT COUNT(*) FROM dropbars WHERE grid_id = ?"), {gridId},
                     0);
}

SqlRows GridDatabase::getItemsForDropbar(DropbarId dropbarId)
{
    return runQuery(
        QStringLiteral("SELECT * FROM dropbar_items WHERE dropbar_id = ? ORDER BY position"),
        {dropbarId});
}

DropbarItemId GridDatabase::addItemToDropbar(DropbarId dropbarId, const QString& type,
                                             const QByteArray& bookmarkData,
                                             const QString& textContent,
                                             const QString& textFilePath)
{
    DropbarItemId itemId = 0;
    const bool ok = write([&] {
        const qint64 position = nextOrder(
            QStringLiteral("SELECT MAX(position) FROM dropbar_items WHERE dropbar_id = ?"),
            {dropbarId});
        const QVariant bookmark =
            bookmarkData.isNull() ? SqliteConnection::nullValue() : QVariant(bookmarkData);
        if (!m_connection.update(
                QStringLiteral("INSERT INTO dropbar_items (dropbar_id, type, bookmark_data, "
                               "text_content, text_file_path, position) VALUES (?, ?, ?, ?, ?, ?)"),
                {dropbarId, type, bookmark, textContent, textFilePath, position})) {
            return false;
        }
        itemId = m_connection.lastInsertRowId();
        return true;
    });
    return ok ? itemId : 0;
}

bool GridDatabase::deleteItemsForDropbar(DropbarId dropbarId)
{
    return write([&] {
        return m_connection.update(QStringLiteral("DELETE FROM dropbar_items WHERE dropbar_id = ?"),
                                   {dropbarId});
    });
}

bool GridDatabase::replaceItemsForDropbar(DropbarId dropbarId, const SqlRows& items)
{
    return write([&] {
        if (!deleteItemsForDropbar(dropbarId)) {
            return false;
        }
        for (qsizetype index = 0; index < items.size(); ++index) {
            const SqlRow& item = items.at(index);
            const auto field = [&](const char* key) {
                return item.value(QString::fromLatin1(key), SqliteConnection::nullValue());
            };
            if (!m_connection.update(
                    QStringLiteral("INSERT INTO dropbar_items (dropbar_id, type, bookmark_data, "
                                   "text_content, text_file_path, position) VALUES (?, ?, ?, ?, "
                                   "?, ?)"),
                    {dropbarId, field("type"), field("bookmark_data"), field("text_content"),
                     field("text_file_path"), index})) {
                return false;
            }
        }
        return true;
    });
}

bool GridDatabase::deleteItem(DropbarItemId itemId, DropbarId dropbarId)
{
    return write([&] {
        return m_connection.update(
                   QStringLiteral("DELETE FROM dropbar_items WHERE id = ? AND dropbar_id = ?"),
                   {itemId, dropbarId}) &&
               m_connection.changes() == 1;
    });
}

DropbarId GridDatabase::separateItem(DropbarItemId itemId, DropbarId dropbarId, GridId gridId,
                                     const QString& title, const QByteArray& icon)
{
    DropbarId separated = 0;
    const bool ok = write([&] {
        if (!m_connection.update(
                QStringLiteral(
                    "INSERT INTO dropbars (grid_id, title, icon, locked, position) SELECT ?, ?, ?, "
                    "locked, COALESCE((SELECT MAX(position) + 1 FROM dropbars WHERE grid_id = ?), "
                    "0) FROM dropbars WHERE id = ? AND EXISTS (SELECT 1 FROM dropbar_items WHERE "
                    "id = ? AND dropbar_id = ?) AND EXISTS (SELECT 1 FROM grids WHERE id = ?)"),
                {gridId, title, icon, gridId, dropbarId, itemId, dropbarId, gridId}) ||
            m_connection.changes() != 1) {
            return false;
        }
        separated = m_connection.lastInsertRowId();
        if (!m_connection.update(QStringLiteral("UPDATE dropbar_items SET dropbar_id = ?, "
                                                "position = 0 WHERE id = ? AND dropbar_id = ?"),
                                 {separated, itemId, dropbarId}) ||
            m_connection.changes() != 1) {
            return false;
        }
        return m_connection.update(
            QStringLiteral("DELETE FROM dropbars WHERE id = ? AND NOT EXISTS (SELECT 1 FROM "
                           "dropbar_items WHERE dropbar_id = ?)"),
            {dropbarId, dropbarId});
    });
    return ok ? separated : 0;
}

GridId GridDatabase::gridIdForDropbar(DropbarId dropbarId)
{
    return integerOf(QStringLiteral("SELECT grids.id FROM dropbars JOIN grids ON grids.id = "
                                    "dropbars.grid_id WHERE dropbars.id = ?"),
                     {dropbarId}, 0);
}
