#pragma once

#include <QByteArray>
#include <QString>

#include <memory>
#include <optional>

typedef struct _GKeyFile GKeyFile;

// A freedesktop.org desktop entry file, read through GLib: only what Skelvo shows of an
// application.
class DesktopEntry {
public:
    static std::optional<DesktopEntry> read(const QString& path);
    // None when the text is no desktop entry (its first group is not [Desktop Entry]).
    static std::optional<DesktopEntry> parse(const QByteArray& text);

    // The value of a key of the [Desktop Entry] group (no locale), or a null string.
    QString value(const QString& key) const;
    // The name for a locale named like LC_MESSAGES ("de_AT.UTF-8@euro"); the empty locale
    // means the ones of the environment (LANGUAGE, LC_ALL, LC_MESSAGES, LANG).
    QString name(const QString& locale = {}) const;
    QString type() const { return value(QStringLiteral("Type")); }
    QString icon() const { return value(QStringLiteral("Icon")); }
    // An application GIO can launch: of type Application, and its TryExec program present.
    bool isApplication() const { return m_isApplication; }

private:
    static std::optional<DesktopEntry> load(GKeyFile* file, bool loaded);

    std::shared_ptr<GKeyFile> m_file;
    bool m_isApplication = false;
};
