#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>

#include <optional>

// The [Desktop Entry] group of a freedesktop.org desktop entry file, read as plain text so
// the engine needs no desktop library. Only what Skelvo shows of an application is read.
class DesktopEntry {
public:
    static std::optional<DesktopEntry> read(const QString& path);
    // None when the text has no [Desktop Entry] group.
    static std::optional<DesktopEntry> parse(const QByteArray& text);

    // The raw value of a key of the group (no locale), or a null string.
    QString value(const QString& key) const;
    // The value for the locale named like LC_MESSAGES ("de_AT.UTF-8@euro"); the empty locale
    // means the one of the environment (LC_ALL, LC_MESSAGES, LANG).
    QString localizedValue(const QString& key, const QString& locale = {}) const;

    QString type() const { return value(QStringLiteral("Type")); }
    QString name(const QString& locale = {}) const;
    QString icon() const { return value(QStringLiteral("Icon")); }
    bool isApplication() const { return type() == QLatin1String("Application"); }

    static QString environmentLocale();

private:
    QMap<QString, QString> m_values;
};
