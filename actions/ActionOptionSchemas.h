#pragma once

#include "actions/ActionOptionSpec.h"

#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>

#include <functional>
#include <optional>
#include <variant>

// What an action's configuration panel (named by its OptionsNIB) means to the engine: the
// options it sets (also the ones the command line may set), whether it keeps a secret in the
// secret store and under which variable that travels, the constant variables it adds to
// every run, and the rules that tie its options together.
struct OptionSchema {
    // Checks the options together, once each has passed its own checks: `given` as typed,
    // `values` as they would be stored.
    using Rules = std::function<std::optional<ActionOptionValidationError>(
        const QMap<QString, QString>& given, const QMap<QString, QString>& values)>;

    QString name;
    // Set from an option kept as a secret when the schema is registered, or by a panel that
    // keeps one without offering it on the command line.
    bool needsKeychainStorage = false;
    QString keychainPasswordKey;
    QMap<QString, QString> constantVariables;
    QList<ActionOptionSpec> options;
    Rules rules;
};

// The one registry of option schemas: the file actions' panels register here at start-up,
// the built-in actions' panels after them.
namespace ActionOptionSchemas {

void registerSchema(OptionSchema schema); // replaces a schema of the same name
void unregisterSchema(const QString& name);
std::optional<OptionSchema> find(const QString& name);
// Every schema name, in the order they were registered.
QStringList names();
// The options of the named schema; none when the command line cannot set it.
std::optional<QList<ActionOptionSpec>> schema(const QString& optionsNib);

// Checks command-line options against the named schema. Relative paths are resolved against
// `cwd`; missing options take their defaults. `actionType`, when given, is named in the
// message about an unknown option. Nothing is stored here.
std::variant<ValidatedActionOptions, ActionOptionValidationError>
validate(const QString& optionsNib, const QMap<QString, QString>& options,
         const QString& cwd = QString(), const QString& actionType = QString());

// The help of one schema as `sk action-info` shows it, one option a line.
QString helpText(const QString& optionsNib);

// The panels of the file actions that ship with the application (a destination folder).
void registerStandardSchemas();

} // namespace ActionOptionSchemas
