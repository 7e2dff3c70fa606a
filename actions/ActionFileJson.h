#pragma once

#include "actions/ActionFile.h"

#include <QJsonObject>
#include <QString>

// JSON views of action records, for action authors and the command line.
namespace ActionFileJson {

// Every stored field, the answers of the queries and the script path.
QJsonObject toJson(const ActionFile& record);

// Parses the bundle or single-file action at `path` exactly as a scan would, validates it
// and reports both. "valid" is false, with an "error", when nothing could be parsed.
QJsonObject inspect(const QString& path);

} // namespace ActionFileJson
