#include "platform/FileBookmark.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

namespace {

const QString PathKey = QStringLiteral("path");
const QString DeviceKey = QStringLiteral("device");
const QString InodeKey = QStringLiteral("inode");

} // namespace

std::optional<FileIdentity> FileIdentity::of(const QString& path)
{
    struct stat info {};
    if (path.isEmpty() || ::stat(QFile::encodeName(path).constData(), &info) != 0) {
        return std::nullopt;
    }
    return FileIdentity{static_cast<quint64>(info.st_dev), static_cast<quint64>(info.st_ino)};
}

namespace FileBookmark {

std::optional<QByteArray> create(const QString& path, QString* error)
{
    struct stat info {};
    if (path.isEmpty() || ::stat(QFile::encodeName(path).constData(), &info) != 0) {
        if (error) {
            *error = path.isEmpty() ? QStringLiteral("No path given")
                                    : QString::fromLocal8Bit(std::strerror(errno));
        }
        return std::nullopt;
    }
    QJsonObject object;
    object.insert(PathKey, QFileInfo(path).absoluteFilePath());
    // Numbers as text: a JSON double cannot hold every 64-bit inode exactly.
    object.insert(DeviceKey, QString::number(static_cast<quint64>(info.st_dev)));
    object.insert(InodeKey, QString::number(static_cast<quint64>(info.st_ino)));
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

std::optional<Resolved> resolve(const QByteArray& data)
{
    const QJsonDocument document = QJsonDocument::fromJson(data);
    if (!document.isObject() || !document.object().value(PathKey).isString()) {
        return std::nullopt;
    }
    const QJsonObject object = document.object();
    Resolved resolved;
    resolved.path = object.value(PathKey).toString();
    const auto identity = FileIdentity::of(resolved.path);
    if (!identity) {
        resolved.missing = true;
        return resolved;
    }
    const FileIdentity recorded{object.value(DeviceKey).toString().toULongLong(),
                                object.value(InodeKey).toString().toULongLong()};
    resolved.replaced = !(recorded == *identity);
    return resolved;
}

} // namespace FileBookmark
