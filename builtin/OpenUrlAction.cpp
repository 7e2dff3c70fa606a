#include "builtin/OpenUrlAction.h"

#include "builtin/BuiltInContext.h"
#include "platform/Launcher.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>

std::optional<QUrl> OpenUrlAction::resolve(const QString& text)
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

void OpenUrlAction::runWithClick()
{
    const QString text = variable(QStringLiteral("url"));
    const std::optional<QUrl> url = resolve(text);
    if (!url) {
        failWithMessage(QStringLiteral("'%1' is not a URL that can be opened.").arg(text));
        return;
    }
    if (url->isLocalFile() && !QFileInfo::exists(url->toLocalFile())) {
        failWithMessage(QStringLiteral("'%1' does not exist.").arg(url->toLocalFile()));
        return;
    }
    QString error;
    if (!context().launcher.openUrl(QString::fromUtf8(url->toEncoded()), &error)) {
        failWithMessage(QStringLiteral("Error opening URL: ") + error);
        return;
    }
    finish();
}
