#include "grid/GridPlacement.h"

#include "store/GridDatabase.h"

namespace GridPlacement {

GridActionPtr placeAction(const QString& type, GridId gridId)
{
    GridDatabase& db = GridDatabase::sharedGridDatabase();
    if (!db.isOpen() || !db.requiredTablesExist()) {
        return nullptr;
    }
    const SqlRows categories = db.categoriesForGrid(gridId);
    const CategoryId categoryId = categories.isEmpty()
                                      ? db.addCategoryWithName(QStringLiteral("Actions"), gridId)
                                      : categories.first().value(QStringLiteral("id")).toLongLong();
    if (categoryId <= 0) {
        return nullptr;
    }
    auto action = std::make_shared<GridAction>();
    action->type = type;
    action->name = type;
    action->categoryId = categoryId;
    action->position = db.getNextPositionForCategoryId(categoryId);
    action->usingDefaultIcon = true;
    action->servicesKey = GridAction::defaultServicesKeyForName(action->name, gridId);
    return action->create() ? action : nullptr;
}

} // namespace GridPlacement
