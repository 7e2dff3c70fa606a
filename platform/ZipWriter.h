#pragma once

#include <QString>
#include <QStringList>

#include <atomic>
#include <functional>

// Writes a zip archive (minizip) of files and folders. Entries are deflated on all cores in
// parallel and written in order; contents that are already compressed (JPEG, PNG, MP4, ZIP and
// the like, told by their file name extension) are stored as they are. Archives and entries
// over 4 GiB use Zip64. Symbolic links are stored as the files they point to. Entries are
// named relative to the parent of each source, so a folder "Photos" gives "Photos/a.jpg".
namespace ZipWriter {

struct Result {
    bool ok = false;
    bool cancelled = false;
    QString error; // a sentence for the user, empty when ok
};

// Bytes of source read so far, and the total to read; called on any thread.
using Progress = std::function<void(qint64 done, qint64 total)>;

// Writes `archive` (replaced when it exists; removed again on failure or cancel) from
// `sources` (absolute paths of files and folders; folders are walked, hidden files included).
Result write(const QString& archive, const QStringList& sources, const Progress& progress = {},
             const std::atomic_bool* cancelled = nullptr);

// Whether the content at `path` is stored without compression (already compressed).
bool isAlreadyCompressed(const QString& path);

// Whether an entry of `size` source bytes is written with Zip64 fields.
bool needsZip64(qint64 size);

} // namespace ZipWriter
