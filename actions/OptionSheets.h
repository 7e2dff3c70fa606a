#pragma once

#include <QMap>
#include <QString>

#include <optional>

// What the engine needs to know of an action's configuration panel (named by the action's
// OptionsNIB): whether it keeps a secret in the keychain, under which variable the secret
// travels, and the constant variables it adds to every run.
struct OptionSheetInfo {
    QString name;
    bool needsKeychainStorage = false;
    QString keychainPasswordKey;
    QMap<QString, QString> constantVariables;
};

namespace OptionSheets {

void registerSheet(const OptionSheetInfo& info); // replaces a sheet of the same name
std::optional<OptionSheetInfo> find(const QString& name);
void unregisterSheet(const QString& name);

} // namespace OptionSheets
