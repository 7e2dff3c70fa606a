#include "cmdline/CommandSupport.h"

#include "tasks/Task.h"
#include "tasks/TaskOutputHandler.h"
#include "tasks/TaskRunner.h"

#include <QDir>
#include <QJsonDocument>

namespace CommandSupport {

GridDatabase& db()
{
    return GridDatabase::sharedGridDatabase();
}

QString str(const QVariantMap& request, const char* key)
{
    return request.value(QString::fromLatin1(key)).toString();
}

bool has(const QVariantMap& request, const char* key)
{
    const QVariant value = request.value(QString::fromLatin1(key));
    return value.isValid() && !value.isNull() && !value.toString().isEmpty();
}

bool given(const CmdLineRequestPtr& client, const QVariantMap& request,
           std::initializer_list<const char*> keys, const char* what)
{
    for (const char* key : keys) {
        if (!has(request, key)) {
            client->respond(QStringLiteral("Error: Missing %1 for %2 command.")
                                .arg(QString::fromLatin1(what), str(request, "action")));
            return false;
        }
    }
    return true;
}

bool flag(const QVariantMap& request, const char* key)
{
    return request.value(QString::fromLatin1(key)).toBool();
}

std::optional<qint64> integer(const QVariantMap& request, const char* key)
{
    const QVariant value = request.value(QString::fromLatin1(key));
    bool ok = false;
    const qint64 number = value.toLongLong(&ok);
    if (!value.isValid() || !ok) {
        return std::nullopt;
    }
    return number;
}

QString json(const QJsonArray& array)
{
    return QString::fromUtf8(QJsonDocument(array).toJson(QJsonDocument::Indented)).trimmed();
}

// The one action of that name (in the grid, when given); answers and gives none when there
// is none or more than one. `hint` ends the answer for several.
std::optional<PlacedAction> singleActionNamed(const QString& name, std::optional<GridId> inGrid,
                                              const QString& hint,
                                              const std::function<void(const QString&)>& respond)
{
    const QList<PlacedAction> found = GridLookup::actionsNamed(name, inGrid);
    if (found.isEmpty()) {
        respond(QStringLiteral("Error: Action '%1' not found").arg(name));
        return std::nullopt;
    }
    if (found.size() > 1) {
        respond(QStringLiteral("Error: Multiple actions named '") + name +
                QStringLiteral("' exist (in grids: ") + GridLookup::gridNamesOf(found) +
                QStringLiteral(")") + hint);
        return std::nullopt;
    }
    return found.first();
}

QString absolutePath(const QString& path, const QString& cwd)
{
    if (path.isEmpty() || QDir::isAbsolutePath(path)) {
        return path;
    }
    return QDir::cleanPath(QDir(cwd.isEmpty() ? QDir::currentPath() : cwd).absoluteFilePath(path));
}

Task* taskOf(QObject* object)
{
    if (auto* handler = qobject_cast<TaskOutputHandler*>(object)) {
        return handler->task();
    }
    if (auto* runner = qobject_cast<TaskRunner*>(object)) {
        return runner->task();
    }
    return qobject_cast<Task*>(object);
}

} // namespace CommandSupport
