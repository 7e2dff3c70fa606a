#include "dropbar/Dropbar.h"

#include "platform/FileBookmark.h"

#include <QFileInfo>

namespace {

const QString UrlType = QStringLiteral("url");
const QString TextType = QStringLiteral("text");

} // namespace

DropbarItem DropbarItem::fromRow(const SqlRow& row)
{
    DropbarItem item;
    item.id = row.value(QStringLiteral("id")).toLongLong();
    if (row.value(QStringLiteral("type")).toString() == TextType) {
        item.type = Type::Text;
        item.text = row.value(QStringLiteral("text_content")).toString();
        item.path = row.value(QStringLiteral("text_file_path")).toString();
        return item;
    }
    item.bookmarkData = row.value(QStringLiteral("bookmark_data")).toByteArray();
    const auto resolved = FileBookmark::resolve(item.bookmarkData);
    item.missing = !resolved || resolved->missing || resolved->replaced;
    if (resolved) {
        item.path = resolved->path;
        if (!item.missing) {
            item.identity = FileIdentity::of(item.path);
        }
        // Keep following the file from where it is now.
        if (resolved->moved) {
            if (auto bookmark = FileBookmark::create(resolved->path)) {
                item.bookmarkData = *bookmark;
            }
        }
    }
    return item;
}

SqlRow DropbarItem::toRow() const
{
    const QVariant null = SqliteConnection::nullValue();
    if (isText()) {
        return {{QStringLiteral("type"), TextType},
                {QStringLiteral("bookmark_data"), null},
                {QStringLiteral("text_content"), text},
                {QStringLiteral("text_file_path"), path.isEmpty() ? null : QVariant(path)}};
    }
    return {{QStringLiteral("type"), UrlType},
            {QStringLiteral("bookmark_data"), bookmarkData},
            {QStringLiteral("text_content"), null},
            {QStringLiteral("text_file_path"), null}};
}

QString DropbarItem::displayName() const
{
    if (isText()) {
        const QString line = text.trimmed().section(u'\n', 0, 0).trimmed();
        if (line.isEmpty()) {
            return path.isEmpty() ? QStringLiteral("Text") : QFileInfo(path).completeBaseName();
        }
        return line.size() > 40 ? line.left(40) + QChar(0x2026) : line;
    }
    return QFileInfo(path).fileName();
}

bool Dropbar::containsOnlyText() const
{
    return !items.isEmpty() && std::all_of(items.cbegin(), items.cend(),
                                           [](const DropbarItem& i) { return i.isText(); });
}

QString Dropbar::automaticTitle(const QList<DropbarItem>& items)
{
    if (items.size() == 1) {
        return items.first().displayName();
    }
    return QStringLiteral("%1 Items").arg(items.size());
}
