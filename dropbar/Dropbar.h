#pragma once

#include "core/Identifiers.h"
#include "platform/FileBookmark.h"
#include "store/SqliteConnection.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <optional>

// One thing kept on a Drop Bar: a file or folder followed by its bookmark, or a piece of
// text with the file it was saved to.
struct DropbarItem {
    enum class Type { Url, Text };
    Type type = Type::Url;
    DropbarItemId id = Identifiers::None; // 0 until stored
    QByteArray bookmarkData;              // Url
    QString path;         // Url: where the file is now; Text: the saved text file (may be empty)
    bool missing = false; // Url: not found when last resolved
    QString text;         // Text
    // Url: the identity found at `path` when last resolved, so that a look that finds the
    // same file there again needs no search.
    std::optional<FileIdentity> identity;

    static DropbarItem file(const QString& path) { return {Type::Url, 0, {}, path, false, {}, {}}; }
    static DropbarItem ofText(const QString& text)
    {
        return {Type::Text, 0, {}, {}, false, text, {}};
    }
    bool isText() const { return type == Type::Text; }

    // An item as the store keeps it; a file's bookmark is resolved, following a rename.
    static DropbarItem fromRow(const SqlRow& row);
    SqlRow toRow() const;
    // What a user sees of it: the file's name, or the text's first line.
    QString displayName() const;
};

// A stack of items shown as one tile of the grid's Drop Bar row.
struct Dropbar {
    DropbarId dbId = Identifiers::FirstDropbarId; // the placeholder until it is stored
    QList<DropbarItem> items;
    QString title;
    QString name; // given by the user; empty for the automatic title
    QByteArray icon;
    bool locked = false; // kept when it becomes empty

    QString displayName() const { return name.isEmpty() ? title : name; }
    bool containsOnlyText() const;
    // "Report.pdf" for one item, "3 Items" for several.
    static QString automaticTitle(const QList<DropbarItem>& items);
};
