#include "store/MonitorJournal.h"

#include "core/Log.h"
#include "core/SupportPaths.h"
#include "platform/FileSystemInfo.h"
#include "store/SqliteConnection.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>

namespace {

constexpr int RunsKept = 100;
constexpr int BusyTimeoutMilliseconds = 5000;

const QString Schema = QStringLiteral(
    "CREATE TABLE IF NOT EXISTS known_identities (folder TEXT NOT NULL, device INTEGER NOT NULL, "
    "inode INTEGER NOT NULL, PRIMARY KEY (folder, device, inode)) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS waiting_batches (batch TEXT PRIMARY KEY, folder TEXT NOT NULL, "
    "paths TEXT NOT NULL, actions TEXT NOT NULL, since INTEGER NOT NULL);"
    "CREATE INDEX IF NOT EXISTS waiting_batches_folder ON waiting_batches (folder, since);"
    "CREATE TABLE IF NOT EXISTS runs (id INTEGER PRIMARY KEY AUTOINCREMENT, folder TEXT NOT NULL, "
    "time INTEGER NOT NULL, paths TEXT NOT NULL, actions TEXT NOT NULL, outcome TEXT NOT NULL);"
    "CREATE INDEX IF NOT EXISTS runs_folder ON runs (folder, id);");

QString key(const QUuid& id)
{
    return id.toString(QUuid::WithoutBraces);
}

QString encodeList(const QStringList& values)
{
    return QString::fromUtf8(
        QJsonDocument(QJsonArray::fromStringList(values)).toJson(QJsonDocument::Compact));
}

QStringList decodeList(const QVariant& text)
{
    QStringList values;
    for (const QJsonValue& value : QJsonDocument::fromJson(text.toString().toUtf8()).array()) {
        values.append(value.toString());
    }
    return values;
}

// SQLite integers are signed; identities keep their 64 bits through the cast both ways.
qint64 stored(quint64 value)
{
    return static_cast<qint64>(value);
}

} // namespace

class MonitorJournal::Database {
public:
    SqliteConnection connection;
    bool ready = false;
};

MonitorJournal::MonitorJournal(QString path)
    : m_db(std::make_unique<Database>())
{
    if (path.isEmpty()) {
        path = QDir(SupportPaths::applicationSupportDirectory())
                   .filePath(QStringLiteral("FolderMonitor.sqlite"));
    }
    QDir().mkpath(QFileInfo(path).absolutePath());
    SqliteConnection& db = m_db->connection;
    if (!db.open(path, true)) {
        Log::error(QStringLiteral("Folder Monitor: unable to open its journal %1").arg(path));
        return;
    }
    db.setBusyTimeout(BusyTimeoutMilliseconds);
    // WAL needs shared memory, which network file systems lack.
    db.query(QStringLiteral("PRAGMA journal_mode=") + (FileSystemInfo::isOnNetworkFileSystem(path)
                                                           ? QStringLiteral("delete")
                                                           : QStringLiteral("wal")));
    db.execute(QStringLiteral("PRAGMA synchronous=NORMAL"));
    m_db->ready = db.execute(Schema);
}

MonitorJournal::~MonitorJournal() = default;

QSet<FileIdentity> MonitorJournal::knownIdentities(const QUuid& folderId) const
{
    QSet<FileIdentity> identities;
    if (!m_db->ready) {
        return identities;
    }
    const auto rows = m_db->connection.query(
        QStringLiteral("SELECT device, inode FROM known_identities WHERE folder = ?"),
        {key(folderId)});
    for (const SqlRow& row : rows.value_or(SqlRows())) {
        identities.insert(
            FileIdentity{static_cast<quint64>(SqliteConnection::toInteger(row.value("device"), 0)),
                         static_cast<quint64>(SqliteConnection::toInteger(row.value("inode"), 0))});
    }
    return identities;
}

bool MonitorJournal::replaceKnownIdentities(const QUuid& folderId,
                                            const QSet<FileIdentity>& identities)
{
    if (!m_db->ready) {
        return false;
    }
    SqliteWriteTransaction transaction(m_db->connection);
    if (!m_db->connection.update(QStringLiteral("DELETE FROM known_identities WHERE folder = ?"),
                                 {key(folderId)})) {
        return false;
    }
    return addKnownIdentities(folderId, identities.values()) && transaction.commit();
}

bool MonitorJournal::addKnownIdentities(const QUuid& folderId,
                                        const QList<FileIdentity>& identities)
{
    if (!m_db->ready) {
        return false;
    }
    SqliteWriteTransaction transaction(m_db->connection);
    const QString folder = key(folderId);
    for (const FileIdentity& identity : identities) {
        if (!m_db->connection.update(QStringLiteral("INSERT OR IGNORE INTO known_identities "
                                                    "(folder, device, inode) VALUES (?, ?, ?)"),
                                     {folder, stored(identity.device), stored(identity.inode)})) {
            m_db->connection.failTransaction();
            return false;
        }
    }
    return transaction.commit();
}

bool MonitorJournal::addWaiting(const Waiting& batch)
{
    if (!m_db->ready) {
        return false;
    }
    QStringList actions;
    for (const qint64 actionId : batch.actionIds) {
        actions.append(QString::number(actionId));
    }
    return m_db->connection.update(
        QStringLiteral("INSERT OR REPLACE INTO waiting_batches (batch, folder, paths, actions, "
                       "since) VALUES (?, ?, ?, ?, ?)"),
        {key(batch.batchId), key(batch.folderId), encodeList(batch.paths), encodeList(actions),
         batch.since.toMSecsSinceEpoch()});
}

bool MonitorJournal::removeWaiting(const QUuid& batchId)
{
    return m_db->ready &&
           m_db->connection.update(QStringLiteral("DELETE FROM waiting_batches WHERE batch = ?"),
                                   {key(batchId)});
}

QList<MonitorJournal::Waiting> MonitorJournal::waiting(const QUuid& folderId) const
{
    QList<Waiting> batches;
    if (!m_db->ready) {
        return batches;
    }
    const auto rows = m_db->connection.query(
        QStringLiteral("SELECT batch, paths, actions, since FROM waiting_batches WHERE folder = ? "
                       "ORDER BY since, rowid"),
        {key(folderId)});
    for (const SqlRow& row : rows.value_or(SqlRows())) {
        Waiting batch;
        batch.batchId = QUuid::fromString(row.value("batch").toString());
        batch.folderId = folderId;
        batch.paths = decodeList(row.value("paths"));
        for (const QString& actionId : decodeList(row.value("actions"))) {
            batch.actionIds.append(actionId.toLongLong());
        }
        batch.since = QDateTime::fromMSecsSinceEpoch(
            SqliteConnection::toInteger(row.value("since"), 0), Qt::UTC);
        batches.append(std::move(batch));
    }
    return batches;
}

bool MonitorJournal::addRun(const QUuid& folderId, const Run& run)
{
    if (!m_db->ready) {
        return false;
    }
    SqliteConnection& db = m_db->connection;
    SqliteWriteTransaction transaction(db);
    const QString folder = key(folderId);
    if (!db.update(QStringLiteral("INSERT INTO runs (folder, time, paths, actions, outcome) "
                                  "VALUES (?, ?, ?, ?, ?)"),
                   {folder, run.time.toMSecsSinceEpoch(), encodeList(run.paths),
                    encodeList(run.actions), run.outcome}) ||
        !db.update(QStringLiteral("DELETE FROM runs WHERE folder = ? AND id NOT IN (SELECT id "
                                  "FROM runs WHERE folder = ? ORDER BY id DESC LIMIT ?)"),
                   {folder, folder, RunsKept})) {
        db.failTransaction();
        return false;
    }
    return transaction.commit();
}

QList<MonitorJournal::Run> MonitorJournal::runs(const QUuid& folderId, int limit) const
{
    QList<Run> runs;
    if (!m_db->ready || limit <= 0) {
        return runs;
    }
    const auto rows = m_db->connection.query(
        QStringLiteral("SELECT time, paths, actions, outcome FROM runs WHERE folder = ? ORDER BY "
                       "id DESC LIMIT ?"),
        {key(folderId), limit});
    for (const SqlRow& row : rows.value_or(SqlRows())) {
        runs.append(Run{QDateTime::fromMSecsSinceEpoch(
                            SqliteConnection::toInteger(row.value("time"), 0), Qt::UTC),
                        decodeList(row.value("paths")), decodeList(row.value("actions")),
                        row.value("outcome").toString()});
    }
    return runs;
}

bool MonitorJournal::forgetFolder(const QUuid& folderId)
{
    if (!m_db->ready) {
        return false;
    }
    SqliteConnection& db = m_db->connection;
    SqliteWriteTransaction transaction(db);
    const QString folder = key(folderId);
    for (const QString& table : {QStringLiteral("known_identities"),
                                 QStringLiteral("waiting_batches"), QStringLiteral("runs")}) {
        // The table names are fixed above, never user input.
        if (!db.update(QStringLiteral("DELETE FROM %1 WHERE folder = ?").arg(table), {folder})) {
            db.failTransaction();
            return false;
        }
    }
    return transaction.commit();
}
