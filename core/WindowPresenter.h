#pragma once

#include "core/Identifiers.h"

#include <QString>
#include <QStringList>

#include <functional>
#include <memory>

// One question of the rename prompt: the new name of one dropped item.
struct RenamePrompt {
    QString title;           // "Rename and Move Files (2 of 3)"
    QString label;           // "New Filename:" or "New Folder Name:"
    QString proposedName;    // the item's current name, shown in the field
    int selectionLength = 0; // the part before the extension, selected in the field
    QString itemPath;
    int itemNumber = 1; // counting from 1
    int itemCount = 1;
};

struct RenameAnswer {
    enum class Kind {
        Renamed,    // `name` holds what the user typed
        Cancelled,  // the user cancelled or closed the prompt
        Unavailable // nobody can be asked (no display)
    };
    Kind kind = Kind::Cancelled;
    QString name;
};

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

    // The grid window (and the menu-bar drop target that opened it) closes.
    virtual void closeGrid() = 0;
    // Pops up the menu of actions that can be added, at the "Add to Grid" tile.
    virtual void showAddActionMenu() = 0;
    // Whether the pop-out grid that shows the Drop Bar is on screen.
    virtual bool isDropBarSecondaryVisible() const = 0;
    // Shows the pop-out grid with the Drop Bar, pinned open.
    virtual void showDropBarSecondaryPinned() = 0;
    // Closes the pop-out Drop Bar grid (animated).
    virtual void closeDropBarSecondary() = 0;
    // Opens the grid showing the stack of the Drop Bar tile `tileId`.
    virtual void revealDropbar(qint64 tileId) = 0;
    // Previews the files in the desktop's previewer, in this order.
    virtual void showQuickLook(const QStringList& paths) = 0;
    // Opens the settings sheet of a grid tile (other open settings sheets have been told to
    // close).
    virtual void showActionConfigSheet(ActionId actionId) = 0;
    // Asks for the new name of one item without blocking. The desktop shows a small window
    // with "Rename" and "Cancel" (350 points wide while the name is narrower than 300 points,
    // else the name's width, at most 800, plus 80); it refuses an empty name itself.
    // `answered` is called once.
    virtual void promptForRenamedFilename(const RenamePrompt& prompt,
                                          std::function<void(const RenameAnswer&)> answered) = 0;
    // A small window with a message and an indeterminate bar while an action is installed,
    // downloaded or checked for updates. Showing it again replaces the message; `cancelled`
    // (may be empty) is called when the user cancels it.
    virtual void showProgressWindow(const QString& message, std::function<void()> cancelled) = 0;
    virtual void closeProgressWindow() = 0;
    // Opens the grid for files or, when there are none, texts shared from another program, so
    // the user chooses the action that takes them.
    virtual void openGridWithPasteboard(const QStringList& files, const QStringList& texts) = 0;
};

class HeadlessWindowPresenter : public WindowPresenter {
public:
    void openSettingsPage(const QString& page) override;
    void showEditWindowForAction(ActionId actionId) override;
    void showDebugConsole() override;
    // Nobody can answer without a display: the request is cancelled.
    void chooseFolder(const QString& title, const QString& prompt, const QString& startFolder,
                      std::function<void(const QString&)> chosen) override;
    void closeGrid() override;
    void showAddActionMenu() override;
    bool isDropBarSecondaryVisible() const override;
    void showDropBarSecondaryPinned() override;
    void closeDropBarSecondary() override;
    void revealDropbar(qint64 tileId) override;
    void showQuickLook(const QStringList& paths) override;
    void showActionConfigSheet(ActionId actionId) override;
    // Nobody can type a name without a display: answered as unavailable.
    void promptForRenamedFilename(const RenamePrompt& prompt,
                                  std::function<void(const RenameAnswer&)> answered) override;
    // Logged; nobody can cancel it.
    void showProgressWindow(const QString& message, std::function<void()> cancelled) override;
    void closeProgressWindow() override;
    // Logged: there is no grid to choose from.
    void openGridWithPasteboard(const QStringList& files, const QStringList& texts) override;
};
