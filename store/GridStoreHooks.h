#pragma once

#include <functional>

class GridAction;

// What the store and its grid actions ask of the parts above them: the grid controller,
// the Drop Bar controller and start-up. Those parts set their hooks in the engine when they come
// up; a hook that is not set does nothing (quitApplication then quits the event loop).
class GridStoreHooks {
public:
    std::function<void()> prepareGrid;             // rebuild the shown grid
    std::function<void()> saveGridActionPositions; // store the grid's current order
    // Remove the items (and their temporary files) of a Drop Bar action.
    std::function<void(const GridAction&)> removeDropbarItems;
    std::function<void()> createFirstLaunchGridActions; // fill a freshly created grid
    std::function<void()> quitApplication;
    std::function<bool()> optionKeyHeld; // whether the Option (Alt) key is down right now
};

namespace GridStore {
// Runs `step` on a later turn of the main event loop (at once when there is no loop).
void runOnNextTurn(std::function<void()> step);
} // namespace GridStore
