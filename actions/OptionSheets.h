#pragma once

#include <QMap>
#include <QString>
#include <QStringList>

#include <optional>

// What the engine needs to know of an action's configuration panel (named by the action's
// OptionsNIB): whether it keeps a secret in the keychain, under which variable the secret
// travels, and the constant variables it adds to every run.
struct OptionSheetInfo {
    QString name;
    bool needsKeychainStorage = false;
    QString keychainPasswordKey;
    QMap<QString, QString> constantVariables;
    // The option keys that may be set from the command line; empty when none can be.
    QStringList commandLineOptions;
};

namespace OptionSheets {

void registerSheet(const OptionSheetInfo& info); // replaces a sheet of the same name
std::optional<OptionSheetInfo> find(const QString& name);
void unregisterSheet(const QString& name);
// The sheets of the actions that ship with the application.
void registerStandardSheets();

} // namespace OptionSheets
