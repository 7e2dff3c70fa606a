#pragma once

#include "builtin/BuiltInAction.h"

// "Open File": opens the chosen file with its default application.
class OpenFileAction : public BuiltInAction {
    Q_OBJECT
public:
    void runWithClick() override;
};
