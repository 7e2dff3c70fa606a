#pragma once

#include <QString>

namespace Version {
// The short version string that actions compare their minimum version against.
inline QString shortVersionString()
{
    return QStringLiteral(SKELVO_VERSION);
}
} // namespace Version
