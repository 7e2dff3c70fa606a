#pragma once

#include <QByteArray>
#include <QString>

// The icons the desktop shows for files, from the user's icon theme.
class Icons;

namespace DesktopIcons {

// PNG bytes of a desktop entry's Icon (a theme name or a file), else of the icon of the
// file's type; empty when the theme has neither.
QByteArray workspaceIcon(const QString& path);

// Makes workspaceIcon the engine's workspace icon provider.
void install(Icons& icons);

} // namespace DesktopIcons
