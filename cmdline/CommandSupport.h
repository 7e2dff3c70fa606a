#pragma once

#include "cmdline/CmdLineRequest.h"
#include "core/Identifiers.h"
#include "grid/GridLookup.h"
#include "store/GridDatabase.h"

#include <QJsonArray>
#include <QObject>
#include <QString>
#include <QVariantMap>

#include <functional>
#include <initializer_list>
#include <optional>

class Task;

// What the command families share: reading a request's fields, writing JSON answers,
// finding the one action a request names.
namespace CommandSupport {

using GridLookup::PlacedAction;

inline const QString ListRule = QStringLiteral("---------------------------\n");

GridDatabase& db();

QString str(const QVariantMap& request, const char* key);
// Present and not empty.
bool has(const QVariantMap& request, const char* key);
bool flag(const QVariantMap& request, const char* key);
// Whether the request gives every one of `keys`; when not, answers
// "Error: Missing <what> for <command> command.".
bool given(const CmdLineRequestPtr& client, const QVariantMap& request,
           std::initializer_list<const char*> keys, const char* what);
std::optional<qint64> integer(const QVariantMap& request, const char* key);
QString json(const QJsonArray& array);

// The one action of that name (in the grid, when given); answers and gives none when there
// is none or more than one. `hint` ends the answer for several.
std::optional<PlacedAction> singleActionNamed(const QString& name, std::optional<GridId> inGrid,
                                              const QString& hint,
                                              const std::function<void(const QString&)>& respond);
// Made absolute against the caller's folder.
QString absolutePath(const QString& path, const QString& cwd);
// The task behind what reported (the task, its runner or its output handler).
Task* taskOf(QObject* object);

} // namespace CommandSupport
