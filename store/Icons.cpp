#include "store/Icons.h"

#include "actions/ActionFile.h"
#include "actions/ActionFileParser.h"
#include "core/SupportPaths.h"
#include "platform/ApplicationFiles.h"
#include "platform/DesktopEntry.h"
#include "store/GridAction.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

namespace {

QByteArray readFile(const QString& path)
{
    QFile file(path);
    if (path.isEmpty() || !file.open(QIODevice::ReadOnly)) {
        return {};
    }
    return file.readAll();
}

QStringList dataDirectories()
{
    QStringList folders;
    const QString home = qEnvironmentVariable("XDG_DATA_HOME");
    folders << (home.isEmpty() ? QDir::home().filePath(QStringLiteral(".local/share")) : home);
    QString system = qEnvironmentVariable("XDG_DATA_DIRS");
    if (system.isEmpty()) {
        system = QStringLiteral("/usr/local/share:/usr/share");
    }
    folders << system.split(QLatin1Char(':'), Qt::SkipEmptyParts);
    return folders;
}

} // namespace

QString Icons::iconsDirectory() const
{
    return QDir(SupportPaths::applicationSupportDirectory()).filePath(QStringLiteral("Icons/5"));
}

QString Icons::iconPathForId(ActionId actionId) const
{
    return QDir(iconsDirectory()).filePath(QString::number(actionId));
}

QByteArray Icons::getIcon(const GridAction& action) const
{
    if (action.aId > 0) {
        const QByteArray cached = readFile(iconPathForId(action.aId));
        if (!cached.isEmpty()) {
            return cached;
        }
    }
    const ActionFilePtr actionFile = action.actionFile();
    if (!action.bundledIcon.isEmpty() && actionFile && !actionFile->bundlePath.isEmpty()) {
        const QDir bundle(actionFile->bundlePath);
        for (const QString& name :
             {action.bundledIcon, action.bundledIcon + QStringLiteral(".png")}) {
            const QByteArray bundled = readFile(bundle.filePath(name));
            if (!bundled.isEmpty()) {
                return bundled;
            }
        }
    }
    return actionFile ? iconForActionFile(*actionFile) : QByteArray();
}

bool Icons::saveIcon(const QByteArray& icon, ActionId actionId) const
{
    if (icon.isEmpty() || actionId <= 0 || !QDir().mkpath(iconsDirectory())) {
        return false;
    }
    QSaveFile file(iconPathForId(actionId));
    if (!file.open(QIODevice::WriteOnly)) {
        return false;
    }
    file.write(icon);
    return file.commit();
}

bool Icons::deleteIcon(ActionId actionId) const
{
    const QString path = iconPathForId(actionId);
    return !QFileInfo::exists(path) || QFile::remove(path);
}

QByteArray Icons::iconForActionFile(const ActionFile& actionFile)
{
    return readFile(actionFile.iconPath());
}

QString Icons::findThemeIcon(const QString& iconName)
{
    if (iconName.isEmpty()) {
        return {};
    }
    if (QDir::isAbsolutePath(iconName)) {
        return QFileInfo(iconName).isFile() ? iconName : QString();
    }
    static const QStringList sizes = {
        QStringLiteral("512x512"), QStringLiteral("256x256"), QStringLiteral("192x192"),
        QStringLiteral("128x128"), QStringLiteral("96x96"),   QStringLiteral("64x64"),
        QStringLiteral("48x48"),   QStringLiteral("32x32"),
    };
    const QStringList folders = dataDirectories();
    for (const QString& size : sizes) {
        for (const QString& folder : folders) {
            const QString candidate = QDir(folder).filePath(
                QStringLiteral("icons/hicolor/%1/apps/%2.png").arg(size, iconName));
            if (QFileInfo(candidate).isFile()) {
                return candidate;
            }
        }
    }
    for (const QString& folder : folders) {
        for (const QString& candidate :
             {QStringLiteral("icons/hicolor/scalable/apps/%1.svg"),
              QStringLiteral("pixmaps/%1.png"), QStringLiteral("pixmaps/%1.svg"),
              QStringLiteral("pixmaps/%1.xpm")}) {
            const QString path = QDir(folder).filePath(candidate.arg(iconName));
            if (QFileInfo(path).isFile()) {
                return path;
            }
        }
    }
    return {};
}

QByteArray Icons::workspaceIconForPath(const QString& path) const
{
    if (ApplicationFiles::isDesktopEntryFile(path)) {
        if (const auto entry = DesktopEntry::read(path)) {
            const QByteArray themed = readFile(findThemeIcon(entry->icon()));
            if (!themed.isEmpty()) {
                return themed;
            }
        }
    }
    return m_workspaceProvider ? m_workspaceProvider(path) : QByteArray();
}

QByteArray Icons::previewImageForPath(const QString& path, int size) const
{
    return m_previewProvider ? m_previewProvider(path, size) : QByteArray();
}
