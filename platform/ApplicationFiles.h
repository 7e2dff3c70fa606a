#pragma once

#include <QString>

// What counts as an application when the user drops one on the grid: a desktop entry file
// (".desktop" of type Application) or an executable file such as an AppImage.
namespace ApplicationFiles {

bool isApplication(const QString& path);
bool isDesktopEntryFile(const QString& path);

// The name the desktop shows for the item: a desktop entry's localised Name; empty for
// anything else (callers then fall back to the file name).
QString displayName(const QString& path);

} // namespace ApplicationFiles
