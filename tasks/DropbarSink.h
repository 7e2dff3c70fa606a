#pragma once

#include "core/Identifiers.h"

#include <QStringList>

#include <functional>

// Where files that an action, a monitored folder or the screenshot folder hand to the Drop
// Bar go. The Drop Bar controller sets itself as the receiver; until one exists the paths are
// logged and dropped.
class DropbarSink {
public:
    // Called once with whether a stack was made, and which.
    using Added = std::function<void(bool added, DropbarId dropbarId)>;
    struct Receiver {
        // Into the shown grid's Drop Bar, as an action's output.
        std::function<void(const QStringList& paths)> add;
        // As one new stack in the Drop Bar of `gridId`.
        std::function<void(const QStringList& paths, GridId gridId, Added done)> addToGrid;
        // Removes a stack; false when there is none.
        std::function<bool(DropbarId dropbarId)> remove;
    };

    void setReceiver(Receiver receiver) { m_receiver = std::move(receiver); }
    void addFilePaths(const QStringList& paths);
    // Without a receiver `done` is called at once with false.
    void addFilePathsToGrid(const QStringList& paths, GridId gridId, Added done);
    bool removeDropbar(DropbarId dropbarId);

private:
    Receiver m_receiver;
};
