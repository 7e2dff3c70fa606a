#pragma once

#include <QByteArray>
#include <QHashFunctions>
#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

// The identity of a file on this machine: a replaced file at the same path has another one.
struct FileIdentity {
    quint64 device = 0;
    quint64 inode = 0;

    // Follows symbolic links; none when nothing is at the path.
    static std::optional<FileIdentity> of(const QString& path);
    // The same for many paths at once; cheaper when neighbours share their folder.
    static QList<std::optional<FileIdentity>> ofAll(const QStringList& paths);
    bool operator==(const FileIdentity&) const = default;
};

inline size_t qHash(const FileIdentity& identity, size_t seed = 0) noexcept
{
    return qHashMulti(seed, identity.device, identity.inode);
}

// A bookmark of a chosen file or folder. There is no sandbox to ask for access, so the data
// records the path and the file's identity; resolving it tells whether the item is still
// there and still the same one, and follows it when it was renamed within its folder.
namespace FileBookmark {

struct Resolved {
    QString path;          // where the item is now
    bool moved = false;    // found under another name in its folder
    bool missing = false;  // found nowhere
    bool replaced = false; // something else now sits at the path and the item is gone
};

std::optional<QByteArray> create(const QString& path, QString* error = nullptr);
// None when the data is not a bookmark.
std::optional<Resolved> resolve(const QByteArray& data);

} // namespace FileBookmark
