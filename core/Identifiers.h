#pragma once

#include <QtGlobal>

// Row ids of the grid store; 0 always means "none" or "failed".
using GridId = qint64;
using CategoryId = qint64;
using ActionId = qint64;
using DropbarId = qint64;
using DropbarItemId = qint64;

namespace Identifiers {

inline constexpr qint64 None = 0;
// The "Add to Grid" tile sits at the end of every grid and is never a stored row.
inline constexpr qint64 AddToGridTileId = 0x7FFFFFFFFFFFFFFE;
// Drop Bars share the tile id space of a grid view; their ids start here. The first one
// (and the placeholder of a Drop Bar not yet stored) is exactly this id.
inline constexpr qint64 FirstDropbarId = 100000;

inline constexpr bool isDropbarId(qint64 tileId)
{
    return tileId >= FirstDropbarId && tileId != AddToGridTileId;
}

} // namespace Identifiers
