#pragma once

#include "core/Identifiers.h"

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QList>
#include <QString>
#include <QUuid>

#include <optional>

// The saved configuration of one monitored folder, kept as a list under "MonitoredFolders"
// in the settings.
struct MonitoredFolder {
    QUuid id;
    QString path;
    QByteArray bookmark; // FileBookmark data: the path and the folder's identity
    bool isEnabled = true;
    QList<ActionId> actionIDs;           // grid actions run in order on each batch
    std::optional<GridId> dropBarGridID; // the grid whose Drop Bar receives the files
    bool confirmBeforeActions = false;
    // Deliver at start what arrived while Skelvo was not running.
    bool catchUpOnStart = false;

    // Keys "id", "path", "bookmark" (base64), "isEnabled", "actionIDs", "dropBarGridID"
    // (absent when unset), "confirmBeforeActions", then "catchUpOnStart".
    QJsonObject toJson() const;
    // None, with the reason in `error`, when the object is not a folder entry.
    static std::optional<MonitoredFolder> fromJson(const QJsonObject& object,
                                                   QString* error = nullptr);
    bool operator==(const MonitoredFolder&) const = default;

    // The saved list: a JSON array (or its text). An entry that cannot be read logs "Folder
    // Monitor: unable to load saved folders: …" and leaves the whole list empty.
    static QList<MonitoredFolder> listFromJson(const QJsonValue& value);
    static QJsonArray listToJson(const QList<MonitoredFolder>& folders);
};
