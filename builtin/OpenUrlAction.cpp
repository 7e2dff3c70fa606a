#include "builtin/OpenUrlAction.h"

#include "builtin/BuiltInContext.h"
#include "core/UserUrl.h"
#include "platform/Launcher.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>

void OpenUrlAction::runWithClick()
{
    const QString text = variable(QStringLiteral("url"));
    const std::optional<QUrl> url = urlFromUserText(text);
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
