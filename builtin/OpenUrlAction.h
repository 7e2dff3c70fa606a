#pragma once

#include "builtin/BuiltInAction.h"

#include <optional>

// "Open URL": opens the configured URL with the desktop's handler.
class OpenUrlAction : public BuiltInAction {
    Q_OBJECT
public:
    void runWithClick() override;
};
