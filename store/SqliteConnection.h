#pragma once

#include <QList>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantList>
#include <QVariantMap>

#include <functional>
#include <initializer_list>
#include <optional>
#include <utility>

struct sqlite3;

// One result row: its values by column name, kept in the query's column order.
class SqlRow {
public:
    using Column = std::pair<QString, QVariant>;

    SqlRow() = default;
    SqlRow(std::initializer_list<Column> columns);

    bool isEmpty() const { return m_columns.isEmpty(); }
    qsizetype size() const { return m_columns.size(); }
    bool contains(const QString& name) const { return indexOf(name) >= 0; }
    QVariant value(const QString& name, const QVariant& fallback = {}) const;
    // Replaces the value of a column the row has; otherwise appends the column.
    void insert(const QString& name, const QVariant& value);
    // The value of the first column; none without columns.
    QVariant first() const { return isEmpty() ? QVariant() : m_columns.first().second; }
    QStringList keys() const;
    QVariantList values() const;
    QVariantMap toMap() const;

    QList<Column>::const_iterator begin() const { return m_columns.cbegin(); }
    QList<Column>::const_iterator end() const { return m_columns.cend(); }
    bool operator==(const SqlRow& other) const { return m_columns == other.m_columns; }

private:
    qsizetype indexOf(const QString& name) const;

    QList<Column> m_columns;
};
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
    // Rolls back instead, and fails, when a part of the transaction failed.
    bool commit();
    bool rollback();
    // Marks the open transaction as failed: it can only end in a rollback.
    void failTransaction() { m_transactionFailed = inTransaction(); }
    bool transactionFailed() const { return m_transactionFailed; }

    void setBusyTimeout(int milliseconds);

    static QVariant nullValue() { return QVariant::fromValue(nullptr); }
    static bool isNull(const QVariant& value);
    // The value as a whole number; `fallback` for NULL or what is not a number.
    static qint64 toInteger(const QVariant& value, qint64 fallback);

private:
    struct Prepared;
    bool run(const QString& sql, const std::function<bool(Prepared&)>& bind,
             const std::function<void(Prepared&)>& onRow);
    void remember(int code, const QString& sql);

    sqlite3* m_db = nullptr;
    QString m_path;
    int m_lastError = 0;
    QString m_lastMessage;
    bool m_transactionFailed = false;
};

// Scope of one write transaction. Inside a transaction that is already open it joins it, so
// operations compose: the outermost scope commits. Leaving without commit() rolls back, and
// an inner scope left that way makes the whole transaction roll back.
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
