#pragma once

#include "builtin/BuiltInAction.h"

// "Move to Trash": dropped items go to the Trash; a click opens the Trash.
class MoveToTrashAction : public BuiltInAction {
    Q_OBJECT
public:
    void runWithClick() override;
    void runWithDraggedUrls(const QList<QUrl>& urls) override;
};
