#include "platform/Launcher.h"

#include <QFileInfo>
#include <QProcess>
#include <QUrl>

// GLib names struct members "signals", which Qt defines as a macro.
#undef signals
#include <gio/gdesktopappinfo.h>
#include <gio/gio.h>

namespace {

QString takeError(GError* gerror)
{
    const QString text = gerror ? QString::fromUtf8(gerror->message) : QString();
    if (gerror) {
        g_error_free(gerror);
    }
    return text;
}

} // namespace

bool GioLauncher::openUrl(const QString& url, QString* error)
{
    GError* gerror = nullptr;
    const bool ok = g_app_info_launch_default_for_uri(url.toUtf8().constData(), nullptr, &gerror);
    const QString message = takeError(gerror);
    if (!ok && error) {
        *error = message;
    }
    return ok;
}

bool GioLauncher::launchApplication(const QString& application, const QStringList& filePaths,
                                    QString* error)
{
    if (application.endsWith(QStringLiteral(".desktop"))) {
        GDesktopAppInfo* info =
            g_desktop_app_info_new_from_filename(QFile::encodeName(application).constData());
        if (!info) {
            if (error) {
                *error = QStringLiteral("%1 is not a valid application entry").arg(application);
            }
            return false;
        }
        GList* uris = nullptr;
        for (const QString& path : filePaths) {
            uris = g_list_append(uris, g_strdup(QUrl::fromLocalFile(path).toEncoded().constData()));
        }
        GError* gerror = nullptr;
        const bool ok = g_app_info_launch_uris(G_APP_INFO(info), uris, nullptr, &gerror);
        g_list_free_full(uris, g_free);
        g_object_unref(info);
        const QString message = takeError(gerror);
        if (!ok && error) {
            *error = message;
        }
        return ok;
    }
    if (!QFileInfo(application).isExecutable()) {
        if (error) {
            *error = QStringLiteral("%1 is not an executable").arg(application);
        }
        return false;
    }
    if (!QProcess::startDetached(application, filePaths)) {
        if (error) {
            *error = QStringLiteral("%1 could not be started").arg(application);
        }
        return false;
    }
    return true;
}
