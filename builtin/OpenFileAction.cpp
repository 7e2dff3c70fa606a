#include "builtin/OpenFileAction.h"

#include "builtin/BuiltInActionTaskBridge.h"
#include "builtin/BuiltInContext.h"
#include "platform/Launcher.h"

#include <QFileInfo>
#include <QUrl>

void OpenFileAction::runWithClick()
{
    const QString path = variable(GridAction::PathVariable);
    if (path.isEmpty() || !QFileInfo::exists(path)) {
        failWithMessage(QStringLiteral("The selected file could not be found."));
        return;
    }
    QString error;
    if (!context().launcher.openUrl(QString::fromUtf8(QUrl::fromLocalFile(path).toEncoded()),
                                    &error)) {
        failWithMessage(QStringLiteral("Error opening file: ") + error);
        return;
    }
    finish();
}
