#include "platform/Trash.h"

#include <QFile>

// GLib names struct members "signals", which Qt defines as a macro.
#undef signals
#include <gio/gio.h>

namespace Trash {

bool moveToTrash(const QString& path, QString* error)
{
    GFile* file = g_file_new_for_path(QFile::encodeName(path).constData());
    GError* gerror = nullptr;
    const bool ok = g_file_trash(file, nullptr, &gerror);
    if (!ok && error)
        *error = gerror ? QString::fromUtf8(gerror->message)
                        : QStringLiteral("Could not move to the Trash");
    if (gerror)
        g_error_free(gerror);
    g_object_unref(file);
    return ok;
}

} // namespace Trash
