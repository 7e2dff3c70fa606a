#pragma once

#include <QString>
#include <QStringList>

#include <atomic>

// Unpacks a zip archive (minizip) into a folder without trusting the archive: every entry is
// checked before a byte is written, and what is written is counted as it is written, since an
// archive can lie about its sizes. Refused, with a message naming the entry: a name with a
// ".." component or an absolute path, a symbolic link, a name given twice (after removing "./"
// and trailing slashes), an encrypted entry, and contents out of proportion to the archive.
// Nothing is ever written outside the destination.
namespace ZipExtractor {

struct Limits {
    qint64 maxRatio = 100;             // unpacked bytes per archive byte
    qint64 maxTotal = qint64(1) << 30; // unpacked bytes in all
};

struct Result {
    bool ok = false;
    bool cancelled = false;
    QString error;       // a sentence for the user, empty when ok
    QStringList entries; // relative paths written, in archive order (folders end in "/")
};

// Unpacks `archive` into `destination`, an existing empty folder. Safe to call on any thread.
// `cancelled` is looked at between entries and between chunks. On failure or cancel whatever
// was written is removed again; the destination folder itself is left for the caller.
Result extract(const QString& archive, const QString& destination,
               const std::atomic_bool* cancelled = nullptr, Limits limits = {});

} // namespace ZipExtractor
