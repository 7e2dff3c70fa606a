#include "platform/FileBookmark.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const QString PathKey = QStringLiteral("path");
const QString DeviceKey = QStringLiteral("device");
const QString InodeKey = QStringLiteral("inode");

// One pass over the folder, no recursion: a rename stays in its folder, and a deeper search
// would make resolving a stack's items slow on large or remote folders.
std::optional<QString> findInFolder(const QString& folder, const FileIdentity& identity)
{
    DIR* dir = ::opendir(QFile::encodeName(folder).constData());
    if (!dir) {
        return std::nullopt;
    }
    std::optional<QString> found;
    while (const dirent* entry = ::readdir(dir)) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) {
            continue;
        }
        struct stat info {};
        if (::fstatat(::dirfd(dir), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 &&
            static_cast<quint64>(info.st_dev) == identity.device &&
            static_cast<quint64>(info.st_ino) == identity.inode) {
            found = QDir(folder).filePath(QFile::decodeName(entry->d_name));
            break;
        }
    }
    ::closedir(dir);
    return found;
}

} // namespace

std::optional<FileIdentity> FileIdentity::of(const QString& path)
{
    struct stat info {};
    if (path.isEmpty() || ::stat(QFile::encodeName(path).constData(), &info) != 0) {
        return std::nullopt;
    }
    return FileIdentity{static_cast<quint64>(info.st_dev), static_cast<quint64>(info.st_ino)};
}

QList<std::optional<FileIdentity>> FileIdentity::ofAll(const QStringList& paths)
{
    QList<std::optional<FileIdentity>> identities;
    identities.reserve(paths.size());
    QByteArray openFolder;
    int folder = -1;
    for (const QString& path : paths) {
        const QByteArray encoded = QFile::encodeName(path);
        const qsizetype slash = encoded.lastIndexOf('/');
        if (slash <= 0) {
            identities << of(path);
            continue;
        }
        // Looking names up in an open folder spares walking the whole path each time.
        const QByteArray parent = encoded.left(slash);
        if (parent != openFolder) {
            if (folder >= 0) {
                ::close(folder);
            }
            folder = ::open(parent.constData(), O_PATH | O_DIRECTORY | O_CLOEXEC);
            openFolder = parent;
        }
        struct stat info {};
        if (folder < 0 || ::fstatat(folder, encoded.constData() + slash + 1, &info, 0) != 0) {
            identities << std::nullopt;
            continue;
        }
        identities << FileIdentity{static_cast<quint64>(info.st_dev),
                                   static_cast<quint64>(info.st_ino)};
    }
    if (folder >= 0) {
        ::close(folder);
    }
    return identities;
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
    const FileIdentity recorded{object.value(DeviceKey).toString().toULongLong(),
                                object.value(InodeKey).toString().toULongLong()};
    const auto identity = FileIdentity::of(resolved.path);
    if (identity && *identity == recorded) {
        return resolved;
    }
    if (auto found = findInFolder(QFileInfo(resolved.path).absolutePath(), recorded)) {
        resolved.path = std::move(*found);
        resolved.moved = true;
        return resolved;
    }
    resolved.missing = !identity;
    resolved.replaced = identity.has_value();
    return resolved;
}

} // namespace FileBookmark
