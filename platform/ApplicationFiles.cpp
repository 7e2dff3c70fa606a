#include "platform/ApplicationFiles.h"

#include "platform/DesktopEntry.h"

#include <QFileInfo>

namespace ApplicationFiles {

bool isDesktopEntryFile(const QString& path)
{
    const QFileInfo info(path);
    return info.isFile() &&
           info.suffix().compare(QLatin1String("desktop"), Qt::CaseInsensitive) == 0;
}

bool isApplication(const QString& path)
{
    const QFileInfo info(path);
    if (isDesktopEntryFile(path)) {
        const auto entry = DesktopEntry::read(path);
        return entry && entry->isApplication();
    }
    return info.isFile() && info.isExecutable();
}

QString displayName(const QString& path)
{
    if (!isDesktopEntryFile(path)) {
        return {};
    }
    const auto entry = DesktopEntry::read(path);
    return entry ? entry->name() : QString();
}

} // namespace ApplicationFiles
