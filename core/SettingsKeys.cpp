#include "core/SettingsKeys.h"

#include "core/Settings.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace SettingsKeys {

namespace {

QList<Key> makeKeys()
{
    using enum Type;
    return {
        {Settings::PlaySounds, Boolean,
         QStringLiteral("Play sounds when actions finish and files "
                        "are dropped")},
        {Settings::NotificationsEnabled, Boolean,
         QStringLiteral("Show notifications for results and the Drop Bar")},
        {Settings::SelectedGridId, GridId, QStringLiteral("The grid shown")},
        {Settings::ScreenTopDragEnabled, Boolean,
         QStringLiteral("Open the drop window when a drag reaches the top of the screen")},
        {Settings::AutoClosePopOutDropBar, Boolean,
         QStringLiteral("Auto-close pop out Drop Bar when last item is removed")},
        {Settings::AutoAddScreenshotsToDropBar, Boolean,
         QStringLiteral("Automatically add screenshots to Drop Bar")},
        {Settings::ScreenshotsTargetGridId, GridId, QStringLiteral("Add screenshots to grid")},
        {Settings::ScreenshotsActionId, ActionId,
         QStringLiteral("Run action with new screenshots")},
        {Settings::ScreenshotsKeepInDropBar, Boolean,
         QStringLiteral("Keep screenshot in Drop Bar")},
        {Settings::ScreenshotsConfirmBeforeAction, Boolean,
         QStringLiteral("Confirm via notification before running action")},
        {Settings::ScreenshotsFolder, String,
         QStringLiteral("The folder screenshots are saved to, when not the desktop's own")},
        {Settings::ActionServerURL, String,
         QStringLiteral("The action server add-on actions come from (http, https or file URL)")},
        {Settings::MonitoredFolders,
         JsonList,
         QStringLiteral("The folders whose new files run actions"),
         {},
         QStringLiteral("sk monitor")},
        {Settings::DevelopPreferredLanguage,
         String,
         QStringLiteral("The language of new actions"),
         {QStringLiteral("Ruby"), QStringLiteral("Python")}},
        {Settings::IncludeDevelopComments, Boolean,
         QStringLiteral("Keep the template's comments in new actions")},
        {Settings::KeepTaskDescriptionFiles, Boolean,
         QStringLiteral("Keep task description files after a run (to debug actions)")},
        {Settings::DisableSSLVerify, Boolean,
         QStringLiteral("Do not verify TLS certificates in actions")},
        {Settings::GridPositionLoggingEnabled, Boolean,
         QStringLiteral("Log where the grid window opens")},
        {Settings::AssignedServiceKeys, Boolean,
         QStringLiteral("The actions' keyboard shortcut letters were assigned")},
        // Read once, when a store of the previous generation is migrated.
        {QStringLiteral("GridIconSize"), Integer,
         QStringLiteral("The icon size taken over from a previous version's grid")},
    };
}

QString quoted(const QString& text)
{
    return u'\'' + text + u'\'';
}

} // namespace

const QList<Key>& all()
{
    static const QList<Key> keys = makeKeys();
    return keys;
}

const Key* find(const QString& name)
{
    for (const Key& key : all()) {
        if (key.name == name) {
            return &key;
        }
    }
    return nullptr;
}

QString typeName(Type type)
{
    switch (type) {
    case Type::Boolean:
        return QStringLiteral("boolean");
    case Type::Integer:
        return QStringLiteral("integer");
    case Type::String:
        return QStringLiteral("string");
    case Type::GridId:
        return QStringLiteral("grid");
    case Type::ActionId:
        return QStringLiteral("action");
    case Type::JsonList:
        return QStringLiteral("list");
    }
    return {};
}

std::optional<QJsonValue> parse(const Key& key, const QString& text, QString* error)
{
    const auto refuse = [&](const QString& expected) -> std::optional<QJsonValue> {
        if (error) {
            *error = key.name + QStringLiteral(" takes ") + expected + QStringLiteral(", not ") +
                     quoted(text) + u'.';
        }
        return std::nullopt;
    };
    const QString word = text.trimmed().toLower();
    switch (key.type) {
    case Type::Boolean:
        // Stricter than reading: a typo must not turn a setting on.
        for (const char* yes : {"true", "yes", "on", "1"}) {
            if (word == QLatin1String(yes)) {
                return QJsonValue(true);
            }
        }
        for (const char* no : {"false", "no", "off", "0"}) {
            if (word == QLatin1String(no)) {
                return QJsonValue(false);
            }
        }
        return refuse(QStringLiteral("true or false (also yes/no, on/off, 1/0)"));
    case Type::Integer:
    case Type::GridId:
    case Type::ActionId: {
        bool ok = false;
        const qint64 number = text.trimmed().toLongLong(&ok);
        if (!ok || (key.type != Type::Integer && number < 1)) {
            return refuse(key.type == Type::Integer ? QStringLiteral("a whole number")
                                                    : QStringLiteral("an id (a number from 1)"));
        }
        return QJsonValue(number);
    }
    case Type::String:
        if (key.choices.isEmpty()) {
            return QJsonValue(text);
        }
        for (const QString& choice : key.choices) {
            if (choice.compare(text.trimmed(), Qt::CaseInsensitive) == 0) {
                return QJsonValue(choice);
            }
        }
        return refuse(key.choices.join(QStringLiteral(" or ")));
    case Type::JsonList: {
        const QJsonDocument document = QJsonDocument::fromJson(text.toUtf8());
        if (!document.isArray()) {
            return refuse(QStringLiteral("a JSON list"));
        }
        return QJsonValue(document.array());
    }
    }
    return std::nullopt;
}

QJsonValue normalized(const Key& key, const QJsonValue& value)
{
    if (value.isUndefined() || value.isNull()) {
        return QJsonValue();
    }
    switch (key.type) {
    case Type::Boolean:
        return Settings::lenientBool(value);
    case Type::Integer:
    case Type::GridId:
    case Type::ActionId:
        return value.isString() ? QJsonValue(value.toString().trimmed().toLongLong())
                                : QJsonValue(value.toInteger());
    case Type::String:
    case Type::JsonList:
        break;
    }
    return value;
}

} // namespace SettingsKeys
