#include "events/AcceptanceRules.h"

#include "actions/ActionFile.h"
#include "events/PasteboardTypes.h"
#include "store/GridAction.h"

#include <QFileInfo>

namespace AcceptanceRules {

bool isAddToGridTile(const GridAction& tile)
{
    return tile.aId == Identifiers::AddToGridTileId;
}

bool isDropbarTile(const GridAction& tile)
{
    return GridAction::isDropbarType(tile.type);
}

bool isFirstDropbarTile(const GridAction& tile)
{
    return isDropbarTile(tile) && tile.aId == Identifiers::FirstDropbarId;
}

bool isRenameAction(const QString& type)
{
    return type == RenameMoveFiles || type == RenameCopyFiles;
}

bool isAppleScriptHandlingFiles(const GridAction& tile, const ActionFile& action)
{
    return action.isBuiltInAction && action.actionName == RunAppleScript &&
           tile.extraVariables.value(HandlesOptionVariable).toInt() == 1;
}

bool isStackItemFromSameDropbar(const GridAction& tile, const DragInfo& drag)
{
    return drag.formats.contains(PasteboardTypes::StackItem) && isDropbarTile(tile) &&
           drag.sourceDropbarId == tile.aId;
}

bool canHandleDrag(const GridAction& tile, const ActionFile* action, const DragInfo& drag)
{
    const QStringList& types = drag.formats;
    if (isStackItemFromSameDropbar(tile, drag)) {
        return false;
    }
    if (types.contains(PasteboardTypes::ActionTile)) {
        return false;
    }
    if (isAddToGridTile(tile)) {
        return !drag.filePaths.isEmpty();
    }
    if (isDropbarTile(tile)) {
        // Items dragged around inside the application only move between other, stored Drop
        // Bars; the first one is also the placeholder of an empty Drop Bar.
        const bool treated = !drag.fromWithinSkelvo || (tile.aId > Identifiers::FirstDropbarId &&
                                                        tile.aId != drag.sourceDropbarId);
        if (treated) {
            const bool files = PasteboardTypes::containsFileDragType(types);
            if (tile.type == DropBarFiles && files) {
                return true;
            }
            if ((tile.type == DropBarText || tile.aId == Identifiers::FirstDropbarId) && !files &&
                PasteboardTypes::containsTextDragType(types)) {
                return true;
            }
        }
    }
    if (canHandleFileDragWithTypes(types, tile, action) ||
        canHandleTextDragWithTypes(types, tile, action)) {
        return true;
    }
    return drag.isGeneralPasteboard && PasteboardTypes::containsImageType(types);
}

bool canHandleFileDragWithTypes(const QStringList& types, const GridAction& tile,
                                const ActionFile* action)
{
    if (!action) {
        return false;
    }
    return (action->handlesFilesDragType() || isAppleScriptHandlingFiles(tile, *action)) &&
           PasteboardTypes::containsFileDragType(types) && !tile.isReferencedPathMissing() &&
           !action->metaValidationFailed;
}

bool canHandleTextDragWithTypes(const QStringList& types, const GridAction& tile,
                                const ActionFile* action)
{
    if (!action) {
        return false;
    }
    return action->handlesTextDragType() && PasteboardTypes::containsTextDragType(types) &&
           !PasteboardTypes::containsImageType(types) && !tile.isReferencedPathMissing() &&
           !action->metaValidationFailed;
}

bool canHandleClipboard(const GridAction& tile, const ActionFile* action, const DragInfo& clipboard)
{
    // Files and an image both reach the action as file URLs.
    if (!clipboard.filePaths.isEmpty() || PasteboardTypes::containsImageType(clipboard.formats)) {
        return canHandleFileDragWithTypes({PasteboardTypes::FileUrl}, tile, action);
    }
    return canHandleTextDragWithTypes(clipboard.formats, tile, action);
}

ClickRoute routeClick(const GridAction& tile, const ActionFile* action)
{
    if (isAddToGridTile(tile)) {
        return ClickRoute::AddActionMenu;
    }
    if (isDropbarTile(tile)) {
        return tile.aId == Identifiers::FirstDropbarId ? ClickRoute::DropBarPinned
                                                       : ClickRoute::DropBarTile;
    }
    if (!action) {
        // The action is gone; its settings sheet is where the user sees that.
        return ClickRoute::OpenConfig;
    }
    if (action->isSharingService) {
        if (!action->handlesClicked()) {
            return ClickRoute::OpenConfig;
        }
        if (action->sharingServiceName == AirDropService &&
            !QFileInfo::exists(AirDropApplication)) {
            return ClickRoute::OpenConfig;
        }
        return ClickRoute::SharingService;
    }
    if (clickWouldOnlyOpenConfig(tile, action)) {
        return ClickRoute::OpenConfig;
    }
    // The renaming actions need dropped items to rename.
    if (tile.isReferencedPathMissing() || action->metaValidationFailed ||
        isRenameAction(tile.type)) {
        return ClickRoute::OpenConfig;
    }
    return action->isBuiltInAction ? ClickRoute::RunBuiltIn : ClickRoute::RunScript;
}

bool clickWouldOnlyOpenConfig(const GridAction& tile, const ActionFile* action)
{
    if (!action || action->isSharingService || isAddToGridTile(tile) || isDropbarTile(tile)) {
        return false;
    }
    return !action->handlesClicked() && !isAppleScriptHandlingFiles(tile, *action);
}

} // namespace AcceptanceRules
