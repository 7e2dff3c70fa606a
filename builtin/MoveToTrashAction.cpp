#include "builtin/MoveToTrashAction.h"

#include "builtin/BuiltInContext.h"
#include "platform/Launcher.h"
#include "platform/Trash.h"

void MoveToTrashAction::runWithClick()
{
    QString error;
    if (!context().launcher.openUrl(Trash::trashUri(), &error)) {
        failWithMessage(QStringLiteral("Error opening the Trash: ") + error);
        return;
    }
    finish();
}

void MoveToTrashAction::runWithDraggedUrls(const QList<QUrl>& urls)
{
    QStringList failures;
    for (const QUrl& url : urls) {
        QString error;
        if (url.isLocalFile() && !Trash::moveToTrash(url.toLocalFile(), &error)) {
            failures << error;
        }
    }
    if (!failures.isEmpty()) {
        failWithMessage(failures.join(u'\n'));
        return;
    }
    finish();
}
