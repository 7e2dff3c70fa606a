#pragma once

class Task;

// What a drop, click or clipboard run came to.
struct DispatchResult {
    enum class Outcome {
        NotHandled,              // refused, or nothing could run (logged)
        AddingToGrid,            // the dropped items become new tiles
        ShowedAddActionMenu,     // the "Add to Grid" tile was clicked
        HandedToDropBar,         // the Drop Bar controller took the drop or click
        ShowedDropBarPinned,     // the first Drop Bar tile opened the pinned Drop Bar grid
        HandedToSharingService,  // a sharing service took the items or the click
        HandedToBuiltIn,         // the built-in action runner took the run
        OpenedActionConfig,      // the tile's settings sheet opened instead of a run
        WaitingForPromisedFiles, // the run follows once the promised files are written
        StartedTask,             // `task` is the script task (it may wait for names)
    };

    Outcome outcome = Outcome::NotHandled;
    Task* task = nullptr;
};
