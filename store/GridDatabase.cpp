#include "store/GridDatabase.h"

#include "core/AlertHelper.h"
#include "core/FileOperations.h"
#include "core/Log.h"
#include "core/NotificationCenter.h"
#include "core/SupportPaths.h"
#include "platform/FileSystemInfo.h"
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
    if (!FileOperations::syncFile(partial)) {
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
    return count && SqliteConnection::toInteger(*count, 0) == 2;
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
    return value ? SqliteConnection::toInteger(*value, fallback) : fallback;
}

qint64 GridDatabase::nextOrder(const QString& sql, const QVariantList& arguments)
{
    const auto value = m_connection.scalar(sql, arguments);
    if (!value || SqliteConnection::isNull(*value)) {
        return 0;
    }
    return SqliteConnection::toInteger(*value, -1) + 1;
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
