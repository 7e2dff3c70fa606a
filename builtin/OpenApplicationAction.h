#pragma once

#include "builtin/BuiltInAction.h"

// "Open Application": launches the chosen application (a .desktop file or an executable),
// with the dropped files when there are any.
class OpenApplicationAction : public BuiltInAction {
    Q_OBJECT
public:
    void runWithClick() override;
    void runWithDraggedUrls(const QList<QUrl>& urls) override;

private:
    void launch(const QStringList& filePaths);
};
