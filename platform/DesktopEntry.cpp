#include "platform/DesktopEntry.h"

#include <QFile>

// GLib names struct members "signals", which Qt defines as a macro.
#undef signals
#include <gio/gdesktopappinfo.h>

namespace {

QString takeString(gchar* text)
{
    const QString value = text ? QString::fromUtf8(text) : QString();
    g_free(text);
    return value;
}

} // namespace

std::optional<DesktopEntry> DesktopEntry::load(GKeyFile* file, bool loaded)
{
    DesktopEntry entry;
    entry.m_file.reset(file, g_key_file_unref);
    gchar* first = loaded ? g_key_file_get_start_group(file) : nullptr;
    const bool isEntry = first && qstrcmp(first, G_KEY_FILE_DESKTOP_GROUP) == 0;
    g_free(first);
    if (!isEntry) {
        return std::nullopt;
    }
    if (GDesktopAppInfo* info = g_desktop_app_info_new_from_keyfile(file)) {
        entry.m_isApplication = true;
        g_object_unref(info);
    }
    return entry;
}

std::optional<DesktopEntry> DesktopEntry::read(const QString& path)
{
    GKeyFile* file = g_key_file_new();
    return load(file, g_key_file_load_from_file(file, QFile::encodeName(path).constData(),
                                                G_KEY_FILE_KEEP_TRANSLATIONS, nullptr));
}

std::optional<DesktopEntry> DesktopEntry::parse(const QByteArray& text)
{
    GKeyFile* file = g_key_file_new();
    return load(file, g_key_file_load_from_data(file, text.constData(), text.size(),
                                                G_KEY_FILE_KEEP_TRANSLATIONS, nullptr));
}

QString DesktopEntry::value(const QString& key) const
{
    return takeString(g_key_file_get_string(m_file.get(), G_KEY_FILE_DESKTOP_GROUP,
                                            key.toUtf8().constData(), nullptr));
}

QString DesktopEntry::name(const QString& locale) const
{
    return takeString(g_key_file_get_locale_string(
        m_file.get(), G_KEY_FILE_DESKTOP_GROUP, G_KEY_FILE_DESKTOP_KEY_NAME,
        locale.isEmpty() ? nullptr : locale.toUtf8().constData(), nullptr));
}
