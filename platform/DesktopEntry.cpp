#include "platform/DesktopEntry.h"

#include <QFile>
#include <QStringList>

namespace {

// Values of string types may carry \s, \n, \t, \r and \\.
QString unescape(const QString& raw)
{
    QString out;
    out.reserve(raw.size());
    for (qsizetype i = 0; i < raw.size(); ++i) {
        const QChar c = raw.at(i);
        if (c != QLatin1Char('\\') || i + 1 >= raw.size()) {
            out += c;
            continue;
        }
        const QChar next = raw.at(++i);
        switch (next.unicode()) {
        case 's':
            out += QLatin1Char(' ');
            break;
        case 'n':
            out += QLatin1Char('\n');
            break;
        case 't':
            out += QLatin1Char('\t');
            break;
        case 'r':
            out += QLatin1Char('\r');
            break;
        case '\\':
            out += QLatin1Char('\\');
            break;
        default:
            out += c;
            out += next;
        }
    }
    return out;
}

} // namespace

std::optional<DesktopEntry> DesktopEntry::read(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return std::nullopt;
    }
    return parse(file.readAll());
}

std::optional<DesktopEntry> DesktopEntry::parse(const QByteArray& text)
{
    DesktopEntry entry;
    bool inGroup = false;
    bool sawGroup = false;
    for (const QByteArray& rawLine : text.split('\n')) {
        const QString line = QString::fromUtf8(rawLine).trimmed();
        if (line.isEmpty() || line.startsWith(QLatin1Char('#'))) {
            continue;
        }
        if (line.startsWith(QLatin1Char('['))) {
            inGroup = line == QLatin1String("[Desktop Entry]");
            sawGroup = sawGroup || inGroup;
            continue;
        }
        if (!inGroup) {
            continue;
        }
        const qsizetype equals = line.indexOf(QLatin1Char('='));
        if (equals <= 0) {
            continue;
        }
        const QString key = line.left(equals).trimmed();
        // The first occurrence of a key counts; a later duplicate is an error in the file.
        if (!entry.m_values.contains(key)) {
            entry.m_values.insert(key, unescape(line.mid(equals + 1).trimmed()));
        }
    }
    if (!sawGroup) {
        return std::nullopt;
    }
    return entry;
}

QString DesktopEntry::value(const QString& key) const
{
    return m_values.value(key);
}

QString DesktopEntry::environmentLocale()
{
    for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const QString value = qEnvironmentVariable(variable);
        if (!value.isEmpty()) {
            return value;
        }
    }
    return {};
}

QString DesktopEntry::localizedValue(const QString& key, const QString& locale) const
{
    QString name = locale.isEmpty() ? environmentLocale() : locale;
    // lang_COUNTRY.ENCODING@MODIFIER: the encoding plays no part in matching.
    QString modifier;
    const qsizetype at = name.indexOf(QLatin1Char('@'));
    if (at >= 0) {
        modifier = name.mid(at + 1);
        name.truncate(at);
    }
    const qsizetype dot = name.indexOf(QLatin1Char('.'));
    if (dot >= 0) {
        name.truncate(dot);
    }
    QString lang = name;
    QString country;
    const qsizetype underscore = name.indexOf(QLatin1Char('_'));
    if (underscore >= 0) {
        lang = name.left(underscore);
        country = name.mid(underscore + 1);
    }
    QStringList candidates;
    if (!lang.isEmpty() && lang != QLatin1String("C") && lang != QLatin1String("POSIX")) {
        if (!country.isEmpty() && !modifier.isEmpty()) {
            candidates << lang + QLatin1Char('_') + country + QLatin1Char('@') + modifier;
        }
        if (!country.isEmpty()) {
            candidates << lang + QLatin1Char('_') + country;
        }
        if (!modifier.isEmpty()) {
            candidates << lang + QLatin1Char('@') + modifier;
        }
        candidates << lang;
    }
    for (const QString& candidate : candidates) {
        const QString localized = key + QLatin1Char('[') + candidate + QLatin1Char(']');
        if (m_values.contains(localized)) {
            return m_values.value(localized);
        }
    }
    return value(key);
}

QString DesktopEntry::name(const QString& locale) const
{
    return localizedValue(QStringLiteral("Name"), locale);
}
