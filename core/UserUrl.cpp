#include "core/UserUrl.h"

#include <QDir>
#include <QRegularExpression>

std::optional<QUrl> urlFromUserText(const QString& text)
{
    const QString trimmed = text.trimmed();
    if (trimmed.isEmpty() || trimmed.contains(QRegularExpression(QStringLiteral("\\s")))) {
        return std::nullopt;
    }
    if (trimmed.startsWith(u'/')) {
        return QUrl::fromLocalFile(trimmed);
    }
    if (trimmed.startsWith(QStringLiteral("~/"))) {
        return QUrl::fromLocalFile(QDir::home().filePath(trimmed.mid(2)));
    }
    static const QRegularExpression scheme(
        QStringLiteral("^([A-Za-z][A-Za-z0-9+.-]*):(?!\\d+(/|$))"));
    const QRegularExpressionMatch match = scheme.match(trimmed);
    if (match.hasMatch()) {
        const QString name = match.captured(1).toLower();
        if (name == u"javascript" || name == u"data") {
            return std::nullopt;
        }
        const QUrl url(trimmed, QUrl::StrictMode);
        return url.isValid() ? std::optional<QUrl>(url) : std::nullopt;
    }
    static const QRegularExpression host(
        QStringLiteral("^[A-Za-z0-9]([A-Za-z0-9-]*[A-Za-z0-9])?(\\.[A-Za-z0-9]([A-Za-z0-9-]*"
                       "[A-Za-z0-9])?)*(:\\d+)?([/?#].*)?$"));
    if (!host.match(trimmed).hasMatch()) {
        return std::nullopt;
    }
    const QUrl url(QStringLiteral("https://") + trimmed, QUrl::StrictMode);
    return url.isValid() ? std::optional<QUrl>(url) : std::nullopt;
}
