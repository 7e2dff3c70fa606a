#pragma once

#include "monitor/MonitoredFolder.h"
#include "platform/FileBookmark.h"

#include <QString>

#include <optional>

// Access to a monitored folder through its bookmark. There is no sandbox grant to hold open
// on Linux; what matters is that the folder is still the one the user chose: a folder renamed
// within its parent is followed, one replaced by another of the same name is noticed.
class MonitoredFolderAccess {
public:
    enum class Outcome {
        Same,     // where and what it was
        Moved,    // renamed within its parent; `path` is the new place
        Replaced, // another folder now sits at the path; `identity` is the new one
        Missing,  // nothing there
    };

    // Resolves the folder's bookmark (its path alone when it has none).
    static MonitoredFolderAccess open(const MonitoredFolder& folder);

    Outcome outcome() const { return m_outcome; }
    bool isAvailable() const { return m_outcome != Outcome::Missing; }
    // Where the folder is now (the saved path when missing).
    const QString& path() const { return m_path; }
    // The identity of what is at `path` now; none when missing.
    const std::optional<FileIdentity>& identity() const { return m_identity; }
    // A bookmark of the folder as it is now, for the saved entry; empty when missing.
    QByteArray bookmark() const;

private:
    Outcome m_outcome = Outcome::Missing;
    QString m_path;
    std::optional<FileIdentity> m_identity;
};
