#include "core/FileOperations.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <fcntl.h>
#include <filesystem>
#include <system_error>
#include <unistd.h>

namespace {

bool copyInto(const QString& source, const QString& destination, QString* error)
{
    namespace fs = std::filesystem;
    std::error_code code;
    // copy_symlinks keeps each link's own text, so a relative link stays relative.
    fs::copy(fs::path(QFile::encodeName(source).toStdString()),
             fs::path(QFile::encodeName(destination).toStdString()),
             fs::copy_options::recursive | fs::copy_options::copy_symlinks, code);
    if (code) {
        *error = QStringLiteral("Could not copy %1 to %2: %3")
                     .arg(source, destination, QString::fromLocal8Bit(code.message()));
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

bool syncFile(const QString& path)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const bool synced = ::fsync(fd) == 0;
    ::close(fd);
    return synced;
}

} // namespace FileOperations
