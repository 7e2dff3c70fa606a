#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <functional>

// The icon of a Drop Bar stack, composed from its items without a display (libvips).
namespace StackIcon {

// Gives PNG data of an icon for a file, or empty data when it has none (the desktop's theme
// icon when a desktop is present; unset headless).
using FileIconProvider = std::function<QByteArray(const QString& path)>;

// A square PNG of `size` pixels showing up to the first three paths piled up (the first on
// top, each further one offset and a little smaller behind it): an image file by a thumbnail
// of itself (shrink-on-load, never decoding a huge image at full size), any other path by
// the provider's icon, else the shipped "Images/folder.png" or "Images/file.png". Missing
// paths use the file icon. Empty `paths` give empty data.
QByteArray forFiles(const QStringList& paths, const FileIconProvider& provider, int size = 128);

// The icon of a stack that holds only text: the shipped "Images/text.png" as PNG data.
QByteArray forText();

} // namespace StackIcon
