// The settings commands: settings, settings-get, settings-set, settings-reset. Every change
// goes through the engine's settings, whose `changed` signal restarts what depends on them.
#include "cmdline/CmdLineTaskHandler.h"
#include "cmdline/CommandSupport.h"
#include "core/Settings.h"
#include "core/SettingsKeys.h"
#include "store/GridAction.h"
#include "tasks/TaskContext.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

using namespace CommandSupport;
using SettingsKeys::Key;
using SettingsKeys::Type;

namespace {

// The value as `sk settings get` prints it, for scripts.
QString plain(const QJsonValue& value)
{
    switch (value.type()) {
    case QJsonValue::Bool:
        return value.toBool() ? QStringLiteral("true") : QStringLiteral("false");
    case QJsonValue::Double:
        return QString::number(value.toInteger());
    case QJsonValue::Array:
        return QString::fromUtf8(QJsonDocument(value.toArray()).toJson(QJsonDocument::Compact));
    default:
        return value.toString();
    }
}

// The value for people: ids with the name of what they point at.
QString shown(const Key& key, const QJsonValue& value)
{
    if (value.isNull()) {
        return QStringLiteral("(not set)");
    }
    if (key.type == Type::GridId) {
        const QString name = GridLookup::gridName(value.toInteger());
        return plain(value) + (name.isEmpty() ? QStringLiteral(" (no such grid)")
                                              : QStringLiteral(" (") + name + u')');
    }
    if (key.type == Type::ActionId) {
        const GridActionPtr action = db().getGridActionWithId(value.toInteger());
        return plain(value) + (action ? QStringLiteral(" (") + action->name + u')'
                                      : QStringLiteral(" (no such action)"));
    }
    if (key.type == Type::JsonList) {
        const qsizetype count = value.toArray().size();
        return count == 1 ? QStringLiteral("1 entry") : QStringLiteral("%1 entries").arg(count);
    }
    return plain(value);
}

} // namespace

const Key* CmdLineTaskHandler::requestedSetting(const CmdLineRequestPtr& client,
                                                const QVariantMap& request, bool changing)
{
    if (!given(client, request, {"key"}, "setting name")) {
        return nullptr;
    }
    const Key* key = SettingsKeys::find(str(request, "key"));
    if (!key) {
        client->respond(QStringLiteral("Error: Unknown setting '") + str(request, "key") +
                        QStringLiteral("'. Run 'sk settings' to see the known settings."));
        return nullptr;
    }
    if (changing && !key->changedWith.isEmpty()) {
        client->respond(QStringLiteral("Error: ") + key->name +
                        QStringLiteral(" is changed with the '") + key->changedWith +
                        QStringLiteral("' commands; run '") + key->changedWith +
                        QStringLiteral("' to see them."));
        return nullptr;
    }
    return key;
}

void CmdLineTaskHandler::listSettings(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    const Settings& settings = m_context.settings;
    if (flag(request, "json")) {
        QJsonArray array;
        for (const Key& key : SettingsKeys::all()) {
            array << QJsonObject{
                {QStringLiteral("key"), key.name},
                {QStringLiteral("type"), SettingsKeys::typeName(key.type)},
                {QStringLiteral("label"), key.label},
                {QStringLiteral("value"), SettingsKeys::normalized(key, settings.value(key.name))},
                {QStringLiteral("set"), settings.contains(key.name)}};
        }
        client->respond(QString::fromUtf8(QJsonDocument(array).toJson(QJsonDocument::Compact)));
        return;
    }
    QString text = QStringLiteral("\nSkelvo Settings:\n") + ListRule;
    for (const Key& key : SettingsKeys::all()) {
        text += key.name + QStringLiteral(" = ") +
                shown(key, SettingsKeys::normalized(key, settings.value(key.name))) +
                (settings.contains(key.name) ? QString() : QStringLiteral("  [default]")) +
                QStringLiteral("\n    ") + key.label + u'\n';
    }
    client->respond(text);
}

void CmdLineTaskHandler::getSetting(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    if (const Key* key = requestedSetting(client, request, false)) {
        client->respond(plain(SettingsKeys::normalized(*key, m_context.settings.value(key->name))));
    }
}

void CmdLineTaskHandler::setSetting(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    const Key* key = requestedSetting(client, request, true);
    if (!key || !given(client, request, {"value"}, "value")) {
        return;
    }
    const QString text = str(request, "value");
    bool isNumber = false;
    text.trimmed().toLongLong(&isNumber);
    QJsonValue value;
    // A grid or an action may also be named; names need not be unique, so the one match.
    if (key->type == Type::GridId && !isNumber) {
        const std::optional<GridId> grid = findGrid(client, text);
        if (!grid) {
            return;
        }
        value = *grid;
    } else if (key->type == Type::ActionId && !isNumber) {
        const auto action = singleActionNamed(
            text, std::nullopt, QStringLiteral(". Rename one of them so that the name is unique."),
            [&client](const QString& answer) { client->respond(answer); });
        if (!action) {
            return;
        }
        value = action->action->aId;
    } else {
        QString error;
        const std::optional<QJsonValue> parsed = SettingsKeys::parse(*key, text, &error);
        if (!parsed) {
            client->respond(QStringLiteral("Error: ") + error);
            return;
        }
        value = *parsed;
    }
    if (key->type == Type::GridId && GridLookup::gridName(value.toInteger()).isEmpty()) {
        client->respond(QStringLiteral("Error: No grid has the id %1. Run 'sk list-grids --json' "
                                       "to see the grids' ids.")
                            .arg(value.toInteger()));
        return;
    }
    if (key->type == Type::ActionId && !db().getGridActionWithId(value.toInteger())) {
        client->respond(QStringLiteral("Error: No action has the id %1.").arg(value.toInteger()));
        return;
    }
    m_context.settings.setValue(key->name, value);
    client->respond(QStringLiteral("Set ") + key->name + QStringLiteral(" to ") +
                    shown(*key, value));
}

void CmdLineTaskHandler::resetSetting(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    const Key* key = requestedSetting(client, request, true);
    if (!key) {
        return;
    }
    m_context.settings.remove(key->name);
    const QJsonValue now = SettingsKeys::normalized(*key, m_context.settings.value(key->name));
    client->respond(QStringLiteral("Reset ") + key->name +
                    (now.isNull() ? QStringLiteral(" (it has no default value)")
                                  : QStringLiteral(" to its default: ") + shown(*key, now)));
}
