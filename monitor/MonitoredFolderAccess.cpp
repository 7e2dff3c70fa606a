#include "monitor/MonitoredFolderAccess.h"

#include "core/Log.h"

#include <QFileInfo>

MonitoredFolderAccess MonitoredFolderAccess::open(const MonitoredFolder& folder)
{
    MonitoredFolderAccess access;
    access.m_path = folder.path;
    std::optional<FileBookmark::Resolved> resolved;
    if (!folder.bookmark.isEmpty()) {
        resolved = FileBookmark::resolve(folder.bookmark);
        if (!resolved) {
            Log::warning(QStringLiteral("Folder Monitor: the bookmark of %1 cannot be read; "
                                        "using its path")
                             .arg(folder.path));
        }
    }
    if (resolved && !resolved->path.isEmpty()) {
        access.m_path = resolved->path;
    }
    const bool isFolder = QFileInfo(access.m_path).isDir();
    access.m_identity = isFolder ? FileIdentity::of(access.m_path) : std::nullopt;
    if (!access.m_identity) {
        access.m_outcome = Outcome::Missing;
        access.m_path = resolved && resolved->moved ? folder.path : access.m_path;
        return access;
    }
    if (resolved && resolved->moved) {
        access.m_outcome = Outcome::Moved;
        Log::info(QStringLiteral("Folder Monitor: %1 was renamed to %2; following it")
                      .arg(folder.path, access.m_path));
    } else if (resolved && resolved->replaced) {
        access.m_outcome = Outcome::Replaced;
        Log::warning(QStringLiteral("Folder Monitor: %1 was replaced by another folder of the "
                                    "same name; watching the new one")
                         .arg(access.m_path));
    } else {
        access.m_outcome = Outcome::Same;
    }
    return access;
}

QByteArray MonitoredFolderAccess::bookmark() const
{
    if (!m_identity) {
        return {};
    }
    return FileBookmark::create(m_path).value_or(QByteArray());
}
