#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

// What the kernel says about the file system a path lies on. Linux has no "remount URL";
// a path counts as being on a network volume when its file system is a network one
// (NFS, SMB/CIFS, sshfs and similar), which may simply be unmounted later.
namespace FileSystemInfo {

struct MountEntry {
    QString mountPoint;
    QString fileSystemType; // "ext4", "nfs4", "fuse.sshfs", ...
    QString source;
};

// Entries of a /proc/<pid>/mountinfo text, in the kernel's order (later mounts stack on top).
QList<MountEntry> parseMountInfo(const QByteArray& contents);

// The type name of the file system holding `path` (or its nearest existing parent), from
// the mount table; empty when the table cannot be read.
QString fileSystemType(const QString& path);

bool isNetworkFileSystemType(const QString& typeName);
// statfs(2) magic numbers, for when the mount table is not readable. FUSE says nothing of
// what is behind it, so it is not counted here.
bool isNetworkFileSystemMagic(qint64 magic);

bool isOnNetworkFileSystem(const QString& path);

// The mount table read by fileSystemType(); tests point it at a prepared file.
void setMountInfoPath(const QString& path);
QString mountInfoPath();

} // namespace FileSystemInfo
