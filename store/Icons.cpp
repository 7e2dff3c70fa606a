#include "store/Icons.h"

#include "actions/ActionFile.h"
#include "actions/ActionFileParser.h"
#include "core/SupportPaths.h"
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

QByteArray Icons::workspaceIconForPath(const QString& path) const
{
    return m_workspaceProvider ? m_workspaceProvider(path) : QByteArray();
}

QByteArray Icons::previewImageForPath(const QString& path, int size) const
{
    return m_previewProvider ? m_previewProvider(path, size) : QByteArray();
}
