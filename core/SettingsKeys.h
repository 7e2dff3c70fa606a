#pragma once

#include <QJsonValue>
#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

// Every settings key the system reads, with the kind of value it takes and the line that
// describes it, so that the settings can be listed and changed without a settings window.
namespace SettingsKeys {

enum class Type {
    Boolean,  // read leniently (Settings::lenientBool); written as true or false
    Integer,  // a whole number
    String,   // text, or one of `choices` when the key has them
    GridId,   // a grid of the store
    ActionId, // a grid action of the store
    JsonList, // an encoded list (JSON array)
};

struct Key {
    QString name;
    Type type;
    QString label;
    QStringList choices = {}; // String: the only values taken, compared without case
    QString changedWith = {}; // a command that owns the key; the settings commands do not set it
};

// In the order they are listed.
const QList<Key>& all();
const Key* find(const QString& name);
QString typeName(Type type);

// The value `text` gives for the key, in the form the settings keep: booleans as true or
// false, numbers as numbers. None, with a message that names the key, when `text` is not a
// value of its type. Grid and action ids are numbers here; whether they exist is the
// caller's to check.
std::optional<QJsonValue> parse(const Key& key, const QString& text, QString* error);
// A kept value as the key reads it: a boolean by the lenient rule, an id as a number.
QJsonValue normalized(const Key& key, const QJsonValue& value);

} // namespace SettingsKeys
