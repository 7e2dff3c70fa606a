#include "monitor/MonitoredFolder.h"

#include "core/Log.h"

#include <QJsonDocument>

namespace {

const QString IdKey = QStringLiteral("id");
const QString PathKey = QStringLiteral("path");
const QString BookmarkKey = QStringLiteral("bookmark");
const QString EnabledKey = QStringLiteral("isEnabled");
const QString ActionIdsKey = QStringLiteral("actionIDs");
const QString DropBarKey = QStringLiteral("dropBarGridID");
const QString ConfirmKey = QStringLiteral("confirmBeforeActions");
const QString CatchUpKey = QStringLiteral("catchUpOnStart");

bool isWholeNumber(const QJsonValue& value)
{
    return value.isDouble() && value.toDouble() == static_cast<double>(value.toInteger());
}

bool fail(QString* error, const QString& message)
{
    if (error) {
        *error = message;
    }
    return false;
}

} // namespace

QJsonObject MonitoredFolder::toJson() const
{
    QJsonObject object;
    object.insert(IdKey, id.toString(QUuid::WithoutBraces));
    object.insert(PathKey, path);
    object.insert(BookmarkKey, QString::fromLatin1(bookmark.toBase64()));
    object.insert(EnabledKey, isEnabled);
    QJsonArray actions;
    for (const ActionId actionId : actionIDs) {
        actions.append(actionId);
    }
    object.insert(ActionIdsKey, actions);
    if (dropBarGridID) {
        object.insert(DropBarKey, *dropBarGridID);
    }
    object.insert(ConfirmKey, confirmBeforeActions);
    object.insert(CatchUpKey, catchUpOnStart);
    return object;
}

std::optional<MonitoredFolder> MonitoredFolder::fromJson(const QJsonObject& object, QString* error)
{
    MonitoredFolder folder;
    folder.id = QUuid::fromString(object.value(IdKey).toString());
    if (folder.id.isNull()) {
        fail(error, QStringLiteral("the entry has no valid \"id\""));
        return std::nullopt;
    }
    folder.path = object.value(PathKey).toString();
    if (folder.path.isEmpty()) {
        fail(error, QStringLiteral("the entry %1 has no \"path\"").arg(folder.id.toString()));
        return std::nullopt;
    }
    const QJsonValue bookmark = object.value(BookmarkKey);
    if (!bookmark.isUndefined() && !bookmark.isString()) {
        fail(error, QStringLiteral("the \"bookmark\" of %1 is not base64 text").arg(folder.path));
        return std::nullopt;
    }
    folder.bookmark = QByteArray::fromBase64(bookmark.toString().toLatin1());
    const auto readBool = [&](const QString& key, bool fallback, bool* out) {
        const QJsonValue value = object.value(key);
        if (value.isUndefined()) {
            *out = fallback;
            return true;
        }
        *out = value.toBool();
        return value.isBool() ||
               fail(error, QStringLiteral("\"%1\" of %2 is not a boolean").arg(key, folder.path));
    };
    if (!readBool(EnabledKey, true, &folder.isEnabled) ||
        !readBool(ConfirmKey, false, &folder.confirmBeforeActions) ||
        !readBool(CatchUpKey, false, &folder.catchUpOnStart)) {
        return std::nullopt;
    }
    const QJsonValue actions = object.value(ActionIdsKey);
    if (!actions.isUndefined() && !actions.isArray()) {
        fail(error, QStringLiteral("\"actionIDs\" of %1 is not a list").arg(folder.path));
        return std::nullopt;
    }
    for (const QJsonValue& actionId : actions.toArray()) {
        if (!isWholeNumber(actionId)) {
            fail(error, QStringLiteral("\"actionIDs\" of %1 holds a value that is not an action "
                                       "id")
                            .arg(folder.path));
            return std::nullopt;
        }
        folder.actionIDs.append(actionId.toInteger());
    }
    const QJsonValue grid = object.value(DropBarKey);
    if (!grid.isUndefined() && !grid.isNull()) {
        if (!isWholeNumber(grid)) {
            fail(error,
                 QStringLiteral("\"dropBarGridID\" of %1 is not a grid id").arg(folder.path));
            return std::nullopt;
        }
        folder.dropBarGridID = grid.toInteger();
    }
    return folder;
}

QList<MonitoredFolder> MonitoredFolder::listFromJson(const QJsonValue& value)
{
    if (value.isUndefined() || value.isNull()) {
        return {};
    }
    QJsonValue list = value;
    QString error;
    if (value.isString()) {
        QJsonParseError parseError{};
        const QJsonDocument document =
            QJsonDocument::fromJson(value.toString().toUtf8(), &parseError);
        if (parseError.error != QJsonParseError::NoError) {
            error = parseError.errorString();
        }
        list = document.isArray() ? QJsonValue(document.array()) : QJsonValue();
    }
    if (!list.isArray() && error.isEmpty()) {
        error = QStringLiteral("the saved value is not a list");
    }
    QList<MonitoredFolder> folders;
    const QJsonArray entries = list.toArray();
    for (qsizetype i = 0; error.isEmpty() && i < entries.size(); ++i) {
        std::optional<MonitoredFolder> folder;
        if (!entries.at(i).isObject()) {
            error = QStringLiteral("entry %1 is not an object").arg(i);
        } else if ((folder = fromJson(entries.at(i).toObject(), &error))) {
            folders.append(std::move(*folder));
        }
    }
    if (!error.isEmpty()) {
        Log::error(QStringLiteral("Folder Monitor: unable to load saved folders: %1").arg(error));
        return {};
    }
    return folders;
}

QJsonArray MonitoredFolder::listToJson(const QList<MonitoredFolder>& folders)
{
    QJsonArray list;
    for (const MonitoredFolder& folder : folders) {
        list.append(folder.toJson());
    }
    return list;
}
