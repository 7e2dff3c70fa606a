#include "store/SqliteConnection.h"

#include "core/Log.h"

#include <QByteArray>

#include <sqlite3.h>

struct SqliteConnection::Prepared {
    sqlite3_stmt* statement = nullptr;
    ~Prepared() { sqlite3_finalize(statement); }
};

namespace {

bool bindValue(sqlite3_stmt* statement, int index, const QVariant& value)
{
    if (SqliteConnection::isNull(value)) {
        return sqlite3_bind_null(statement, index) == SQLITE_OK;
    }
    switch (value.typeId()) {
    case QMetaType::QByteArray: {
        const QByteArray data = value.toByteArray();
        return sqlite3_bind_blob64(statement, index, data.constData(),
                                   static_cast<sqlite3_uint64>(data.size()),
                                   SQLITE_TRANSIENT) == SQLITE_OK;
    }
    case QMetaType::Bool:
        return sqlite3_bind_int64(statement, index, value.toBool() ? 1 : 0) == SQLITE_OK;
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::Long:
    case QMetaType::LongLong:
    case QMetaType::Short:
    case QMetaType::Char:
        return sqlite3_bind_int64(statement, index, value.toLongLong()) == SQLITE_OK;
    case QMetaType::ULong:
    case QMetaType::ULongLong:
        return sqlite3_bind_int64(statement, index,
                                  static_cast<sqlite3_int64>(value.toULongLong())) == SQLITE_OK;
    case QMetaType::Double:
    case QMetaType::Float:
        return sqlite3_bind_double(statement, index, value.toDouble()) == SQLITE_OK;
    default: {
        const QString text = value.toString();
        if (text.isNull()) {
            return sqlite3_bind_null(statement, index) == SQLITE_OK;
        }
        const QByteArray utf8 = text.toUtf8();
        return sqlite3_bind_text64(statement, index, utf8.constData(),
                                   static_cast<sqlite3_uint64>(utf8.size()), SQLITE_TRANSIENT,
                                   SQLITE_UTF8) == SQLITE_OK;
    }
    }
}

QVariant columnValue(sqlite3_stmt* statement, int column)
{
    switch (sqlite3_column_type(statement, column)) {
    case SQLITE_INTEGER:
        return QVariant::fromValue<qint64>(sqlite3_column_int64(statement, column));
    case SQLITE_FLOAT:
        return sqlite3_column_double(statement, column);
    case SQLITE_TEXT: {
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
        return QString::fromUtf8(text, sqlite3_column_bytes(statement, column));
    }
    case SQLITE_BLOB: {
        const auto* data = static_cast<const char*>(sqlite3_column_blob(statement, column));
        return QByteArray(data ? data : "", sqlite3_column_bytes(statement, column));
    }
    default:
        return SqliteConnection::nullValue();
    }
}

SqlRow rowOf(sqlite3_stmt* statement)
{
    SqlRow row;
    const int count = sqlite3_column_count(statement);
    for (int column = 0; column < count; ++column) {
        row.insert(QString::fromUtf8(sqlite3_column_name(statement, column)),
                   columnValue(statement, column));
    }
    return row;
}

} // namespace

SqlRow::SqlRow(std::initializer_list<Column> columns)
{
    for (const Column& column : columns) {
        insert(column.first, column.second);
    }
}

qsizetype SqlRow::indexOf(const QString& name) const
{
    for (qsizetype i = 0; i < m_columns.size(); ++i) {
        if (m_columns.at(i).first == name) {
            return i;
        }
    }
    return -1;
}

QVariant SqlRow::value(const QString& name, const QVariant& fallback) const
{
    const qsizetype index = indexOf(name);
    return index < 0 ? fallback : m_columns.at(index).second;
}

void SqlRow::insert(const QString& name, const QVariant& value)
{
    const qsizetype index = indexOf(name);
    if (index < 0) {
        m_columns.append({name, value});
    } else {
        m_columns[index].second = value;
    }
}

QStringList SqlRow::keys() const
{
    QStringList names;
    for (const Column& column : m_columns) {
        names << column.first;
    }
    return names;
}

QVariantList SqlRow::values() const
{
    QVariantList list;
    for (const Column& column : m_columns) {
        list << column.second;
    }
    return list;
}

QVariantMap SqlRow::toMap() const
{
    QVariantMap map;
    for (const Column& column : m_columns) {
        map.insert(column.first, column.second);
    }
    return map;
}

SqliteConnection::~SqliteConnection()
{
    close();
}

bool SqliteConnection::isNull(const QVariant& value)
{
    return !value.isValid() || value.typeId() == QMetaType::Nullptr;
}

qint64 SqliteConnection::toInteger(const QVariant& value, qint64 fallback)
{
    if (isNull(value)) {
        return fallback;
    }
    bool ok = false;
    const qint64 number = value.toLongLong(&ok);
    return ok ? number : fallback;
}

bool SqliteConnection::open(const QString& path, bool create)
{
    close();
    int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_FULLMUTEX;
    if (create) {
        flags |= SQLITE_OPEN_CREATE;
    }
    sqlite3* db = nullptr;
    const int code = sqlite3_open_v2(path.toUtf8().constData(), &db, flags, nullptr);
    if (code != SQLITE_OK) {
        m_lastError = code;
        m_lastMessage =
            db ? QString::fromUtf8(sqlite3_errmsg(db)) : QString::fromUtf8(sqlite3_errstr(code));
        sqlite3_close(db);
        return false;
    }
    sqlite3_extended_result_codes(db, 1);
    m_db = db;
    m_path = path;
    m_lastError = SQLITE_OK;
    m_lastMessage.clear();
    return true;
}

void SqliteConnection::close()
{
    if (m_db) {
        sqlite3_close_v2(m_db);
        m_db = nullptr;
    }
}

void SqliteConnection::setBusyTimeout(int milliseconds)
{
    if (m_db) {
        sqlite3_busy_timeout(m_db, milliseconds);
    }
}

void SqliteConnection::remember(int code, const QString& sql)
{
    m_lastError = code;
    if (code == SQLITE_OK || code == SQLITE_DONE || code == SQLITE_ROW) {
        m_lastMessage.clear();
        return;
    }
    m_lastMessage =
        m_db ? QString::fromUtf8(sqlite3_errmsg(m_db)) : QString::fromUtf8(sqlite3_errstr(code));
    Log::warning(
        QStringLiteral("SQLite error %1 (%2) in \"%3\"").arg(code).arg(m_lastMessage, sql));
}

bool SqliteConnection::run(const QString& sql, const std::function<bool(Prepared&)>& bind,
                           const std::function<void(Prepared&)>& onRow)
{
    if (!m_db) {
        m_lastError = SQLITE_MISUSE;
        m_lastMessage = QStringLiteral("no open database");
        return false;
    }
    Prepared prepared;
    const QByteArray utf8 = sql.toUtf8();
    int code = sqlite3_prepare_v2(m_db, utf8.constData(), static_cast<int>(utf8.size()),
                                  &prepared.statement, nullptr);
    if (code != SQLITE_OK || !prepared.statement) {
        remember(code == SQLITE_OK ? SQLITE_MISUSE : code, sql);
        return false;
    }
    if (!bind(prepared)) {
        remember(SQLITE_RANGE, sql);
        return false;
    }
    while ((code = sqlite3_step(prepared.statement)) == SQLITE_ROW) {
        if (onRow) {
            onRow(prepared);
        }
    }
    remember(code, sql);
    return code == SQLITE_DONE;
}

bool SqliteConnection::execute(const QString& sql)
{
    if (!m_db) {
        m_lastError = SQLITE_MISUSE;
        return false;
    }
    char* message = nullptr;
    const int code = sqlite3_exec(m_db, sql.toUtf8().constData(), nullptr, nullptr, &message);
    sqlite3_free(message);
    remember(code, sql);
    return code == SQLITE_OK;
}

bool SqliteConnection::update(const QString& sql, const QVariantList& arguments)
{
    return run(sql,
               [&](Prepared& p) {
                   if (sqlite3_bind_parameter_count(p.statement) != arguments.size()) {
                       return false;
                   }
                   for (int i = 0; i < arguments.size(); ++i) {
                       if (!bindValue(p.statement, i + 1, arguments.at(i))) {
                           return false;
                       }
                   }
                   return true;
               },
               {});
}

bool SqliteConnection::update(const QString& sql, const QVariantMap& namedArguments)
{
    return run(sql,
               [&](Prepared& p) {
                   const int count = sqlite3_bind_parameter_count(p.statement);
                   for (int i = 1; i <= count; ++i) {
                       const char* name = sqlite3_bind_parameter_name(p.statement, i);
                       if (!name || name[0] != ':') {
                           return false;
                       }
                       const QString key = QString::fromUtf8(name + 1);
                       // A key the map lacks binds NULL, as a missing dictionary entry does.
                       if (!bindValue(p.statement, i, namedArguments.value(key, nullValue()))) {
                           return false;
                       }
                   }
                   return true;
               },
               {});
}

std::optional<SqlRows> SqliteConnection::query(const QString& sql, const QVariantList& arguments)
{
    SqlRows rows;
    const bool ok = run(
        sql,
        [&](Prepared& p) {
            if (sqlite3_bind_parameter_count(p.statement) != arguments.size()) {
                return false;
            }
            for (int i = 0; i < arguments.size(); ++i) {
                if (!bindValue(p.statement, i + 1, arguments.at(i))) {
                    return false;
                }
            }
            return true;
        },
        [&](Prepared& p) { rows << rowOf(p.statement); });
    if (!ok) {
        return std::nullopt;
    }
    return rows;
}

std::optional<QVariant> SqliteConnection::scalar(const QString& sql, const QVariantList& arguments)
{
    const auto rows = query(sql, arguments);
    if (!rows || rows->isEmpty() || rows->first().isEmpty()) {
        return std::nullopt;
    }
    return rows->first().first();
}

qint64 SqliteConnection::lastInsertRowId() const
{
    return m_db ? sqlite3_last_insert_rowid(m_db) : 0;
}

int SqliteConnection::changes() const
{
    return m_db ? sqlite3_changes(m_db) : 0;
}

bool SqliteConnection::inTransaction() const
{
    return m_db && sqlite3_get_autocommit(m_db) == 0;
}

bool SqliteConnection::beginImmediate()
{
    m_transactionFailed = false;
    return execute(QStringLiteral("BEGIN IMMEDIATE"));
}

bool SqliteConnection::commit()
{
    if (m_transactionFailed) {
        rollback();
        m_lastMessage = QStringLiteral("a part of the transaction failed");
        return false;
    }
    return execute(QStringLiteral("COMMIT"));
}

bool SqliteConnection::rollback()
{
    m_transactionFailed = false;
    if (!inTransaction()) {
        return true; // SQLite may already have rolled back after an I/O error
    }
    return execute(QStringLiteral("ROLLBACK"));
}

SqliteWriteTransaction::SqliteWriteTransaction(SqliteConnection& connection)
    : m_connection(connection)
{
    if (!connection.isOpen()) {
        return;
    }
    if (connection.inTransaction()) {
        m_active = !connection.transactionFailed();
        return;
    }
    m_owner = connection.beginImmediate();
    m_active = m_owner;
}

SqliteWriteTransaction::~SqliteWriteTransaction()
{
    if (!m_active) {
        return;
    }
    if (m_owner) {
        m_connection.rollback();
    } else {
        m_connection.failTransaction();
    }
}

bool SqliteWriteTransaction::commit()
{
    if (!m_active) {
        return false;
    }
    m_active = false;
    if (!m_owner) {
        return !m_connection.transactionFailed();
    }
    if (!m_connection.commit()) {
        m_connection.rollback();
        return false;
    }
    return true;
}
