#include "platform/FileSystemInfo.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>

#include <sys/vfs.h>

namespace {

QString& mountInfoOverride()
{
    static QString path;
    return path;
}

// mountinfo escapes blanks, tabs, newlines and backslashes in paths as octal sequences.
QString unescapeMountField(const QByteArray& field)
{
    QByteArray out;
    out.reserve(field.size());
    for (qsizetype i = 0; i < field.size(); ++i) {
        if (field.at(i) == '\\' && i + 3 < field.size()) {
            bool ok = false;
            const int value = field.mid(i + 1, 3).toInt(&ok, 8);
            if (ok) {
                out.append(static_cast<char>(value));
                i += 3;
                continue;
            }
        }
        out.append(field.at(i));
    }
    return QString::fromUtf8(out);
}

// The nearest existing ancestor, symbolic links resolved, so that a path being created or
// a dangling child still finds its mount.
QString existingCanonical(const QString& path)
{
    QString current = QDir::cleanPath(QFileInfo(path).absoluteFilePath());
    while (!current.isEmpty()) {
        const QString canonical = QFileInfo(current).canonicalFilePath();
        if (!canonical.isEmpty()) {
            return canonical;
        }
        const QString parent = QFileInfo(current).path();
        if (parent == current) {
            break;
        }
        current = parent;
    }
    return QStringLiteral("/");
}

bool isUnder(const QString& path, const QString& mountPoint)
{
    if (mountPoint == QLatin1String("/")) {
        return true;
    }
    return path == mountPoint || path.startsWith(mountPoint + QLatin1Char('/'));
}

} // namespace

namespace FileSystemInfo {

QList<MountEntry> parseMountInfo(const QByteArray& contents)
{
    QList<MountEntry> entries;
    for (const QByteArray& line : contents.split('\n')) {
        const QList<QByteArray> fields = line.split(' ');
        // id parent major:minor root mount-point options [optional fields...] - type source ...
        const qsizetype separator = fields.indexOf(QByteArray("-"));
        if (separator < 6 || separator + 1 >= fields.size()) {
            continue;
        }
        MountEntry entry;
        entry.mountPoint = unescapeMountField(fields.at(4));
        entry.fileSystemType = unescapeMountField(fields.at(separator + 1));
        if (separator + 2 < fields.size()) {
            entry.source = unescapeMountField(fields.at(separator + 2));
        }
        entries << entry;
    }
    return entries;
}

QString mountInfoPath()
{
    return mountInfoOverride().isEmpty() ? QStringLiteral("/proc/self/mountinfo")
                                         : mountInfoOverride();
}

void setMountInfoPath(const QString& path)
{
    mountInfoOverride() = path;
}

QString fileSystemType(const QString& path)
{
    QFile file(mountInfoPath());
    if (!file.open(QIODevice::ReadOnly)) {
        return {};
    }
    const QList<MountEntry> entries = parseMountInfo(file.readAll());
    const QString target = existingCanonical(path);
    const MountEntry* best = nullptr;
    for (const MountEntry& entry : entries) {
        // The longest mount point wins; among equal ones the later mount is on top.
        if (isUnder(target, entry.mountPoint) &&
            (!best || entry.mountPoint.size() >= best->mountPoint.size())) {
            best = &entry;
        }
    }
    return best ? best->fileSystemType : QString();
}

bool isNetworkFileSystemType(const QString& typeName)
{
    static const QSet<QString> network = {
        QStringLiteral("nfs"),
        QStringLiteral("nfs4"),
        QStringLiteral("cifs"),
        QStringLiteral("smb"),
        QStringLiteral("smb3"),
        QStringLiteral("smbfs"),
        QStringLiteral("ncp"),
        QStringLiteral("ncpfs"),
        QStringLiteral("afs"),
        QStringLiteral("coda"),
        QStringLiteral("9p"),
        QStringLiteral("ceph"),
        QStringLiteral("glusterfs"),
        QStringLiteral("lustre"),
        QStringLiteral("davfs"),
        QStringLiteral("sshfs"),
        QStringLiteral("afpfs"),
        QStringLiteral("beegfs"),
        QStringLiteral("orangefs"),
        QStringLiteral("pvfs2"),
        QStringLiteral("gpfs"),
        QStringLiteral("fuse.sshfs"),
        QStringLiteral("fuse.rclone"),
        QStringLiteral("fuse.s3fs"),
        QStringLiteral("fuse.gvfsd-fuse"),
        QStringLiteral("fuse.curlftpfs"),
        QStringLiteral("fuse.glusterfs"),
        QStringLiteral("fuse.ceph-fuse"),
        QStringLiteral("fuse.smbnetfs"),
        QStringLiteral("fuse.davfs2"),
        QStringLiteral("fuse.afpfs"),
        QStringLiteral("fuse.goofys"),
        QStringLiteral("fuse.gcsfuse"),
        QStringLiteral("fuse.juicefs"),
    };
    return network.contains(typeName.toLower());
}

bool isNetworkFileSystemMagic(qint64 magic)
{
    switch (static_cast<quint32>(magic)) {
    case 0x6969:     // NFS
    case 0x517B:     // SMB
    case 0xFF534D42: // CIFS
    case 0xFE534D42: // SMB2
    case 0x73757245: // Coda
    case 0x5346414F: // AFS
    case 0x6B414653: // kAFS
    case 0x564C:     // NCP
    case 0x01021997: // 9p
    case 0x00C36400: // Ceph
        return true;
    default:
        return false;
    }
}

bool isOnNetworkFileSystem(const QString& path)
{
    const QString type = fileSystemType(path);
    if (!type.isEmpty()) {
        return isNetworkFileSystemType(type);
    }
    struct statfs info {};
    if (::statfs(existingCanonical(path).toUtf8().constData(), &info) != 0) {
        return false;
    }
    return isNetworkFileSystemMagic(static_cast<qint64>(info.f_type));
}

} // namespace FileSystemInfo
