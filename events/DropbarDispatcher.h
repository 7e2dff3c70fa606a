#pragma once

#include "core/Identifiers.h"
#include "events/DragInfo.h"
#include "store/GridAction.h"

#include <memory>

// Where the events handler hands drops on and clicks of Drop Bar tiles. The Drop Bar
// controller is set on the handler; without one such drops and clicks are logged.
class DropbarDispatcher {
public:
    virtual ~DropbarDispatcher() = default;

    // Adds the drop's items to the Drop Bar; `delayPrepareGrid` asks to rebuild the grid only
    // once it has closed. Returns whether items were added.
    virtual bool addItemsFromDrag(const DragInfo& drag, DropbarId dropBarId, bool fromWithinSkelvo,
                                  bool delayPrepareGrid) = 0;
    // A "Drop Bar Files" tile shows its stack or opens its one item; a "Drop Bar Text" tile
    // inserts its text into the frontmost application.
    virtual void handleClick(const GridAction& dropBarTile) = 0;
};
