#pragma once

#include <QList>
#include <QString>
#include <QVariant>
#include <QVariantList>
#include <QVariantMap>

#include <functional>
#include <optional>

struct sqlite3;

using SqlRow = QVariantMap;
using SqlRows = QList<SqlRow>;

// One connection to an SQLite file, closed when the object goes. Values cross as QVariant:
// integers as qint64, reals as double, text as QString, blobs as QByteArray and SQL NULL as
// a null marker (QVariant holding nullptr), which a row keeps under its column name.
// Failures are logged with the statement and SQLite's message; nothing throws.
class SqliteConnection {
public:
    SqliteConnection() = default;
    ~SqliteConnection();
    SqliteConnection(const SqliteConnection&) = delete;
    SqliteConnection& operator=(const SqliteConnection&) = delete;

    // Opens an existing file for reading and writing; never creates one unless asked.
    bool open(const QString& path, bool create = false);
    void close();
    bool isOpen() const { return m_db != nullptr; }
    sqlite3* handle() const { return m_db; }
    QString path() const { return m_path; }

    // Runs one or more statements without parameters.
    bool execute(const QString& sql);
    // Runs one statement with positional ("?") parameters; true when it ran to the end.
    bool update(const QString& sql, const QVariantList& arguments = {});
    // Runs one statement with named (":name") parameters taken from the map by name.
    bool update(const QString& sql, const QVariantMap& namedArguments);
    // All rows of a query; none when it failed.
    std::optional<SqlRows> query(const QString& sql, const QVariantList& arguments = {});
    // The first column of the first row; none when there is no row or the query failed.
    std::optional<QVariant> scalar(const QString& sql, const QVariantList& arguments = {});

    qint64 lastInsertRowId() const;
    int changes() const; // rows changed by the last insert, update or delete
    int lastErrorCode() const { return m_lastError; }
    QString lastErrorMessage() const { return m_lastMessage; }
    bool inTransaction() const;

    // Write transactions take the write lock at once, so two writers queue up behind the
    // busy timeout instead of one of them failing half way with "database is locked".
    bool beginImmediate();
    bool commit();
    bool rollback();

    void setBusyTimeout(int milliseconds);

    static QVariant nullValue() { return QVariant::fromValue(nullptr); }
    static bool isNull(const QVariant& value);

private:
    struct Prepared;
    bool run(const QString& sql, const std::function<bool(Prepared&)>& bind,
             const std::function<void(Prepared&)>& onRow);
    void remember(int code, const QString& sql);

    sqlite3* m_db = nullptr;
    QString m_path;
    int m_lastError = 0;
    QString m_lastMessage;
};

// Scope of one write transaction. Inside a transaction that is already open it does nothing,
// so operations compose: the outermost scope commits. Leaving without commit() rolls back.
class SqliteWriteTransaction {
public:
    explicit SqliteWriteTransaction(SqliteConnection& connection);
    ~SqliteWriteTransaction();
    SqliteWriteTransaction(const SqliteWriteTransaction&) = delete;
    SqliteWriteTransaction& operator=(const SqliteWriteTransaction&) = delete;

    bool isActive() const { return m_active; }
    // False inside a transaction that an outer scope opened.
    bool ownsTransaction() const { return m_owner; }
    bool commit();

private:
    SqliteConnection& m_connection;
    bool m_owner = false;
    bool m_active = false;
};
