#include "app/DesktopIcons.h"

#include "platform/ApplicationFiles.h"
#include "platform/DesktopEntry.h"
#include "store/Icons.h"

#include <QBuffer>
#include <QFileInfo>
#include <QIcon>
#include <QMimeDatabase>
#include <QPixmap>

namespace DesktopIcons {

namespace {

constexpr int IconSize = 256;

QIcon entryIcon(const QString& path)
{
    if (!ApplicationFiles::isDesktopEntryFile(path)) {
        return {};
    }
    const auto entry = DesktopEntry::read(path);
    const QString name = entry ? entry->icon() : QString();
    if (QFileInfo(name).isAbsolute()) {
        return QFileInfo(name).isFile() ? QIcon(name) : QIcon();
    }
    return name.isEmpty() ? QIcon() : QIcon::fromTheme(name);
}

} // namespace

QByteArray workspaceIcon(const QString& path)
{
    QIcon icon = entryIcon(path);
    if (icon.isNull()) {
        const QMimeType type = QMimeDatabase().mimeTypeForFile(path);
        icon = QIcon::fromTheme(type.iconName(), QIcon::fromTheme(type.genericIconName()));
    }
    const QPixmap pixmap = icon.pixmap(IconSize, IconSize);
    if (pixmap.isNull()) {
        return {};
    }
    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    return pixmap.save(&buffer, "PNG") ? png : QByteArray();
}

void install(Icons& icons)
{
    icons.setWorkspaceIconProvider(workspaceIcon);
}

} // namespace DesktopIcons
