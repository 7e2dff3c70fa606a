#pragma once

#include "actions/ActionOptionSpec.h"

#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>

#include <optional>
#include <variant>

// The option schemas, by the name of the configuration panel (an action's optionsNib).
namespace ActionOptionSchemas {

// Every schema name, in a stable order.
QStringList names();
std::optional<QList<ActionOptionSpec>> schema(const QString& optionsNib);

// Checks command-line options against the named schema. Relative paths are resolved against
// `cwd`; missing options take their defaults. `actionType`, when given, is named in the
// message about an unknown option. Nothing is stored here.
std::variant<ValidatedActionOptions, ActionOptionValidationError>
validate(const QString& optionsNib, const QMap<QString, QString>& options,
         const QString& cwd = QString(), const QString& actionType = QString());

// The help of one schema as `sk action-info` shows it, one option a line.
QString helpText(const QString& optionsNib);

// Makes the schemas known to the option-sheet registry that action files consult.
void registerOptionSheets();

} // namespace ActionOptionSchemas
