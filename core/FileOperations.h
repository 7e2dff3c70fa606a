#pragma once

#include <QString>

namespace FileOperations {

// Copies a file or a whole folder (symbolic links are copied as links). The destination
// must not exist. On failure whatever was copied is removed again and `error` says why.
bool copyRecursively(const QString& source, const QString& destination, QString* error = nullptr);

// Removes a file, a link or a whole folder. True when nothing is left at the path.
bool removeRecursively(const QString& path, QString* error = nullptr);

// Flushes the file to the disk; false when it cannot be opened or synced.
bool syncFile(const QString& path);

} // namespace FileOperations
