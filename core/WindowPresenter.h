#pragma once

#include "core/Identifiers.h"

#include <QString>

#include <functional>
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
    // Shows the debug console window (and closes the grid).
    virtual void showDebugConsole() = 0;
    // Asks for a folder without blocking (directories only, may create folders). `chosen`
    // gets the folder, or an empty text when the user cancels.
    virtual void chooseFolder(const QString& title, const QString& prompt,
                              const QString& startFolder,
                              std::function<void(const QString&)> chosen) = 0;

    static WindowPresenter& shared();
    static void setShared(std::shared_ptr<WindowPresenter> presenter);
};

class HeadlessWindowPresenter : public WindowPresenter {
public:
    void openSettingsPage(const QString& page) override;
    void showEditWindowForAction(ActionId actionId) override;
    void showDebugConsole() override;
    // Nobody can answer without a display: the request is cancelled.
    void chooseFolder(const QString& title, const QString& prompt, const QString& startFolder,
                      std::function<void(const QString&)> chosen) override;
};
