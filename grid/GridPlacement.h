#pragma once

#include "core/Identifiers.h"
#include "store/GridAction.h"

#include <QString>

// Puts an action type on a grid the way the "Add to Grid" menu does: at the end of the
// grid's first category (a category "Actions" is made when the grid has none), named after
// the type, with the type's own icon.
namespace GridPlacement {

// The new grid action, or null when the store cannot add it.
GridActionPtr placeAction(const QString& type, GridId gridId);

} // namespace GridPlacement
