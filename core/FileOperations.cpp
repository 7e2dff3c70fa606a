#include "core/FileOperations.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <optional>
#include <unistd.h>

namespace {

// The link's own text: QFileInfo::symLinkTarget() makes a relative target absolute, which
// would tie a copied link to the original's folder.
std::optional<QByteArray> linkText(const QString& path)
{
    const QByteArray name = QFile::encodeName(path);
    QByteArray buffer(256, Qt::Uninitialized);
    for (;;) {
        const ssize_t length = ::readlink(name.constData(), buffer.data(), buffer.size());
        if (length < 0) {
            return std::nullopt;
        }
        if (length < buffer.size()) {
            buffer.truncate(length);
            return buffer;
        }
        buffer.resize(buffer.size() * 2);
    }
}

bool copyInto(const QString& source, const QString& destination, QString* error)
{
    const QFileInfo info(source);
    if (info.isSymLink()) {
        const std::optional<QByteArray> target = linkText(source);
        if (!target ||
            ::symlink(target->constData(), QFile::encodeName(destination).constData()) != 0) {
            *error = QStringLiteral("Could not create link %1").arg(destination);
            return false;
        }
        return true;
    }
    if (info.isDir()) {
        if (!QDir().mkdir(destination)) {
            *error = QStringLiteral("Could not create folder %1").arg(destination);
            return false;
        }
        QFile::setPermissions(destination, info.permissions());
        const QDir dir(source);
        const QStringList entries =
            dir.entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
        for (const QString& entry : entries) {
            if (!copyInto(dir.filePath(entry), QDir(destination).filePath(entry), error)) {
                return false;
            }
        }
        return true;
    }
    QFile file(source);
    if (!file.copy(destination)) {
        *error = QStringLiteral("Could not copy %1 to %2: %3")
                     .arg(source, destination, file.errorString());
        return false;
    }
    return true;
}

} // namespace

namespace FileOperations {

bool copyRecursively(const QString& source, const QString& destination, QString* error)
{
    QString reason;
    if (!QFileInfo::exists(source) && !QFileInfo(source).isSymLink()) {
        reason = QStringLiteral("%1 does not exist").arg(source);
    } else if (QFileInfo::exists(destination) || QFileInfo(destination).isSymLink()) {
        reason = QStringLiteral("%1 already exists").arg(destination);
    } else if (copyInto(source, destination, &reason)) {
        return true;
    } else {
        removeRecursively(destination);
    }
    if (error) {
        *error = reason;
    }
    return false;
}

bool removeRecursively(const QString& path, QString* error)
{
    const QFileInfo info(path);
    if (!info.exists() && !info.isSymLink()) {
        return true;
    }
    bool removed = false;
    if (info.isDir() && !info.isSymLink()) {
        removed = QDir(path).removeRecursively();
    } else {
        removed = QFile::remove(path);
    }
    if (!removed && error) {
        *error = QStringLiteral("Could not remove %1").arg(path);
    }
    return removed;
}

} // namespace FileOperations
