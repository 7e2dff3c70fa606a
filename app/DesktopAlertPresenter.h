#pragma once

#include "core/AlertHelper.h"

// Alerts as message boxes, with the application brought to the front first.
class DesktopAlertPresenter : public AlertPresenter {
public:
    int present(const Alert& alert) override;
};
