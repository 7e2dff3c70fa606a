#include "builtin/OpenApplicationAction.h"

#include "builtin/BuiltInContext.h"
#include "platform/Launcher.h"

void OpenApplicationAction::runWithClick()
{
    launch({});
}

void OpenApplicationAction::runWithDraggedUrls(const QList<QUrl>& urls)
{
    QStringList paths;
    for (const QUrl& url : urls) {
        if (url.isLocalFile()) {
            paths << url.toLocalFile();
        }
    }
    launch(paths);
}

void OpenApplicationAction::launch(const QStringList& filePaths)
{
    QString error;
    if (!context().launcher.launchApplication(variable(GridAction::PathVariable), filePaths,
                                              &error)) {
        failWithMessage(QStringLiteral("Error opening application: ") + error);
        return;
    }
    finish();
}
