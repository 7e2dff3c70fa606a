#pragma once

#include "core/AlertHelper.h"

// Alerts as non-modal message boxes, with the application brought to the front first; the
// answer arrives when the box closes.
class DesktopAlertPresenter : public AlertPresenter {
public:
    void present(const Alert& alert, Answered answered) override;
};
