#pragma once

#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>

#include <optional>

// One option of an option schema: its name on the command line (also the action variable
// that stores it), what values it takes and the help text `sk action-info` shows.
struct ActionOptionSpec {
    enum class Kind {
        Text,    // any text
        Integer, // a whole number within [minimum, maximum]
        Boolean, // "1"/"0", "true"/"false", "yes"/"no" (stored as "1" or "0")
        Choice,  // one of `choices`
        Path,    // a path, made absolute against the caller's folder
        Url,     // a URL (checked by the schema's rules)
        Secret,  // kept in the secret store, never as a plain variable
    };

    QString key;
    Kind kind = Kind::Text;
    QStringList choices;
    std::optional<qlonglong> minimum;
    std::optional<qlonglong> maximum;
    bool required = false;
    bool keychainSecret = false;
    bool keychainSecondarySecret = false;
    QString defaultValue;
    QString pattern; // a regular expression the whole value must match; empty for none
    QString help;
};

struct ActionOptionValidationError {
    QString message;
};

// The outcome of a validation: the variables to store, and the secrets to keep apart.
struct ValidatedActionOptions {
    QMap<QString, QString> variables;
    std::optional<QString> secret;
    std::optional<QString> secondarySecret;
};
