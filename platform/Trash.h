#pragma once

#include <QString>

// The freedesktop.org Trash through GIO: files on the home file system go to
// $XDG_DATA_HOME/Trash, others to the top directory's .Trash-$uid, each with its
// .trashinfo entry, so file managers and `gio trash --list` see them.
namespace Trash {

// False with GIO's message when the item could not be trashed (it is then left in place).
bool moveToTrash(const QString& path, QString* error = nullptr);

// The desktop's view of the Trash, for opening it.
inline QString trashUri()
{
    return QStringLiteral("trash:///");
}

} // namespace Trash
