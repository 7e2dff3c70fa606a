#pragma once

#include <QString>

// Where Skelvo keeps its files on this machine. Folders are created on demand; a folder
// that cannot be created is logged and its path is still returned.
//
// The roots follow the XDG base directories. SKELVO_HOME replaces all of them at once
// (data, config and runtime under it), so a test or portable instance runs beside a real one.
// SKELVO_RESOURCES overrides where the shipped resources are found.
namespace SupportPaths {

QString applicationSupportDirectory(); // $XDG_DATA_HOME/Skelvo
QString configDirectory();             // $XDG_CONFIG_HOME/Skelvo
// $XDG_RUNTIME_DIR/skelvo, private to the user; empty when the fallback in the temporary
// folder is not safe to use.
QString runtimeDirectory();
QString logsDirectory(); // "Logs" in the support folder

// The running executable's folder, found once: a package upgrade that replaces the binary
// under a running process turns /proc/self/exe into "... (deleted)".
QString executableDirectory();
// Finds the executable's folder, and so the resources beside it, now; called at start-up
// before anything can replace the binary.
void locateResources();

QString resourcesDirectory();       // <prefix>/share/skelvo beside the executable
QString internalActionsDirectory(); // "Actions" in the resources (read-only)
QString internalLibDirectory();     // "lib" in the internal actions folder
QString userActionsDirectory();     // "Actions" in the support folder

QString tasksDirectory(); // "Tasks" in the support folder; empty when it cannot be created
QString promisedFilesDirectory();
QString uniquePromisedFilesDirectory(); // a new "SkFilePromise-<uuid>" folder
QString actionOutputsDirectory();
QString uniqueActionOutputDirectory(); // a new "SkActionOutput-<uuid>" folder
QString savedTextDirectory();
QString uniqueTemporaryDirectory(); // a new folder under the system temporary folder

} // namespace SupportPaths
