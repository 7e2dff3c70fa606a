#pragma once

#include "core/Identifiers.h"

#include <QString>

#include <memory>

// Opens the application's windows on behalf of the engine. Without a display the requests
// are logged; tests record them.
class WindowPresenter {
public:
    virtual ~WindowPresenter() = default;
    // Opens the settings window at the named page ("Add-on Actions", "Updates", ...).
    virtual void openSettingsPage(const QString& page) = 0;
    // Opens the configuration window of a grid action so the user can complete it.
    virtual void showEditWindowForAction(ActionId actionId) = 0;

    static WindowPresenter& shared();
    static void setShared(std::shared_ptr<WindowPresenter> presenter);
};

class HeadlessWindowPresenter : public WindowPresenter {
public:
    void openSettingsPage(const QString& page) override;
    void showEditWindowForAction(ActionId actionId) override;
};
