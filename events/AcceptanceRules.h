#pragma once

#include "events/DragInfo.h"

#include <QString>
#include <QStringList>

class ActionFile;
class GridAction;

// Whether a tile takes a drag, a click or the clipboard, decided from the offered MIME
// formats, the tile's record and its action's parsed description (null when the tile's
// action is unknown, as for the special tiles). Refusals are silent.
namespace AcceptanceRules {

inline const QString DropBarFiles = QStringLiteral("Drop Bar Files");
inline const QString DropBarText = QStringLiteral("Drop Bar Text");
inline const QString RenameMoveFiles = QStringLiteral("Rename & Move Files");
inline const QString RenameCopyFiles = QStringLiteral("Rename & Copy Files");
inline const QString RunAppleScript = QStringLiteral("Run AppleScript");
inline const QString HandlesOptionVariable = QStringLiteral("handles_option");
inline const QString AirDropService = QStringLiteral("AirDrop");
inline const QString AirDropApplication =
    QStringLiteral("/System/Library/CoreServices/Finder.app/Contents/Applications/AirDrop.app");

bool isAddToGridTile(const GridAction& tile);
bool isDropbarTile(const GridAction& tile);
bool isFirstDropbarTile(const GridAction& tile);
bool isRenameAction(const QString& type);
// "Run AppleScript" set to hand dropped files to its script.
bool isAppleScriptHandlingFiles(const GridAction& tile, const ActionFile& action);

// A stack item dragged out of the very Drop Bar it would be dropped on.
bool isStackItemFromSameDropbar(const GridAction& tile, const DragInfo& drag);

// While a drag hovers over a tile.
bool canHandleDrag(const GridAction& tile, const ActionFile* action, const DragInfo& drag);
// The file rule: the action takes files, a file format is offered, and the tile is usable.
bool canHandleFileDragWithTypes(const QStringList& types, const GridAction& tile,
                                const ActionFile* action);
// The text rule: the action takes text, the string is offered without any image, and the
// tile is usable.
bool canHandleTextDragWithTypes(const QStringList& types, const GridAction& tile,
                                const ActionFile* action);

// The clipboard's file URLs, else its image (both as a file), else its text.
bool canHandleClipboard(const GridAction& tile, const ActionFile* action,
                        const DragInfo& clipboard);

// Where a click on a tile goes, in the order the checks are made.
enum class ClickRoute {
    AddActionMenu,  // the "Add to Grid" tile
    DropBarTile,    // a Drop Bar tile other than the first
    DropBarPinned,  // the first Drop Bar tile
    SharingService, // a sharing service that takes clicks
    OpenConfig,     // the settings sheet opens instead of a run
    RunBuiltIn,     // a built-in action runs
    RunScript,      // a script task starts with no items
};
ClickRoute routeClick(const GridAction& tile, const ActionFile* action);
// An action that reacts to no click at all, so a click only opens its settings.
bool clickWouldOnlyOpenConfig(const GridAction& tile, const ActionFile* action);

} // namespace AcceptanceRules
