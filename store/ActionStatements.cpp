#include "core/Log.h"
#include "store/GridAction.h"
#include "store/GridDatabase.h"
#include "store/Icons.h"
#include "store/StoreContext.h"

// --- Actions

qint64 GridDatabase::getNumActions()
{
    return integerOf(QStringLiteral("SELECT COUNT(*) FROM actions"), {}, 0);
}

qint64 GridDatabase::getNumActionsWithWhereClause(const QString& whereClause)
{
    return integerOf(QStringLiteral("SELECT COUNT(*) FROM actions WHERE ") + whereClause, {}, 0);
}

qint64 GridDatabase::getNumActionsForCategoryId(CategoryId categoryId)
{
    return integerOf(QStringLiteral("SELECT COUNT(*) FROM actions WHERE category_id = (?)"),
                     {categoryId}, 0);
}

int GridDatabase::getNextPositionForCategoryId(CategoryId categoryId)
{
    return static_cast<int>(nextOrder(
        QStringLiteral("SELECT MAX(position) FROM actions WHERE category_id = (?)"), {categoryId}));
}

QList<GridActionPtr> GridDatabase::actionsFrom(const QString& sql, const QVariantList& arguments)
{
    QList<GridActionPtr> actions;
    for (const SqlRow& row : runQuery(sql, arguments)) {
        actions << gridActionFromRowDict(row);
    }
    return actions;
}

GridActionPtr GridDatabase::getGridActionWithType(const QString& type)
{
    const auto actions =
        actionsFrom(QStringLiteral("SELECT * FROM actions WHERE type = (?) LIMIT 1"), {type});
    return actions.isEmpty() ? nullptr : actions.first();
}

GridActionPtr GridDatabase::getGridActionWithName(const QString& name)
{
    const auto actions =
        actionsFrom(QStringLiteral("SELECT * FROM actions WHERE name = (?) LIMIT 1"), {name});
    return actions.isEmpty() ? nullptr : actions.first();
}

GridActionPtr GridDatabase::getGridActionWithId(ActionId actionId)
{
    const auto actions =
        actionsFrom(QStringLiteral("SELECT * FROM actions WHERE id = (?)"), {actionId});
    if (actions.isEmpty()) {
        Log::info(QStringLiteral("GridAction with ID %1 not found").arg(actionId));
        return nullptr;
    }
    return actions.first();
}

QList<GridActionPtr> GridDatabase::getActionsForCategoryId(CategoryId categoryId)
{
    return actionsFrom(
        QStringLiteral("SELECT * FROM actions WHERE category_id = (?) ORDER BY position"),
        {categoryId});
}

QList<GridActionPtr> GridDatabase::getAllActions()
{
    return actionsFrom(QStringLiteral("SELECT * FROM actions ORDER BY position"), {});
}

bool GridDatabase::hasAddedActionWithType(const QString& type)
{
    for (const SqlRow& category : categoriesForGrid(selectedGridId())) {
        for (const GridActionPtr& action : getActionsForCategoryId(
                 SqliteConnection::toInteger(category.value(QStringLiteral("id")), 0))) {
            if (action->type == type) {
                return true;
            }
        }
    }
    return false;
}

GridActionPtr GridDatabase::gridActionFromRowDict(const SqlRow& row)
{
    auto action = std::make_shared<GridAction>();
    const auto text = [&](const char* key) {
        const QVariant value = row.value(QString::fromLatin1(key));
        return SqliteConnection::isNull(value) ? QString() : value.toString();
    };
    action->name = text("name");
    action->servicesKey = text("services_key");
    action->type = text("type");
    action->bundledIcon = text("bundled_icon");
    action->position =
        static_cast<int>(SqliteConnection::toInteger(row.value(QStringLiteral("position")), 0));
    action->categoryId = SqliteConnection::toInteger(row.value(QStringLiteral("category_id")), 0);
    action->aId = SqliteConnection::toInteger(row.value(QStringLiteral("id")), 0);
    action->usingDefaultIcon =
        SqliteConnection::toInteger(row.value(QStringLiteral("using_default_icon")), 0) != 0;
    action->extraVariables = getExtraVariablesForActionId(action->aId);
    action->icon = context().icons.getIcon(*action);
    return action;
}

ActionId GridDatabase::addAction(const GridAction& action,
                                 const GridActionVariables& extraVariables)
{
    ActionId actionId = 0;
    const bool ok = write([&] {
        if (!m_connection.update(
                QStringLiteral("INSERT INTO actions (name, services_key, type, position, "
                               "category_id, bundled_icon, using_default_icon) VALUES (:name, "
                               ":services_key, :type, :position, :category_id, :bundled_icon, "
                               ":using_default_icon)"),
                action.actionDict())) {
            return false;
        }
        actionId = m_connection.lastInsertRowId();
        return setExtraVariablesForActionId(actionId, extraVariables);
    });
    return ok ? actionId : 0;
}

bool GridDatabase::updateAction(const GridAction& action, const GridActionVariables& extraVariables)
{
    QVariantMap dict = action.actionDict();
    dict.insert(QStringLiteral("id"), action.aId);
    return write([&] {
        return m_connection.update(
                   QStringLiteral("UPDATE actions SET name=:name, services_key=:services_key, "
                                  "type=:type, position=:position, category_id=:category_id, "
                                  "bundled_icon=:bundled_icon, "
                                  "using_default_icon=:using_default_icon WHERE id=:id"),
                   dict) &&
               setExtraVariablesForActionId(action.aId, extraVariables);
    });
}

bool GridDatabase::updateServicesKeyForActionId(ActionId actionId, const QString& servicesKey)
{
    return write([&] {
        return m_connection.update(
            QStringLiteral("UPDATE actions SET services_key = (?) WHERE id = (?)"),
            {servicesKey, actionId});
    });
}

bool GridDatabase::moveAction(ActionId actionId, CategoryId categoryId, int position)
{
    return write([&] {
        return m_connection.update(
            QStringLiteral("UPDATE actions SET category_id = ?, position = ? WHERE id = ?"),
            {categoryId, position, actionId});
    });
}

bool GridDatabase::deleteAction(ActionId actionId)
{
    const bool ok = write([&] {
        return m_connection.update(QStringLiteral("DELETE FROM actions WHERE id = (?)"),
                                   {actionId}) &&
               deleteExtraVariablesForActionId(actionId);
    });
    // Every deletion compacts the file (deferred to the end of an enclosing transaction).
    vacuum();
    return ok;
}

// --- Action variables

GridActionVariables GridDatabase::getExtraVariablesForActionId(ActionId actionId)
{
    GridActionVariables variables;
    for (const SqlRow& row : runQuery(
             QStringLiteral("SELECT * FROM action_variables WHERE action_id = (?)"), {actionId})) {
        const QVariant blob = row.value(QStringLiteral("variable_value_blob"));
        const QVariant text = row.value(QStringLiteral("variable_value"));
        QVariant value;
        if (!SqliteConnection::isNull(blob)) {
            value = blob.toByteArray();
        } else if (!SqliteConnection::isNull(text)) {
            value = text.toString();
        } else {
            value = SqliteConnection::nullValue();
        }
        variables.insert(row.value(QStringLiteral("variable_name")).toString(), value);
    }
    return variables;
}

bool GridDatabase::setExtraVariablesForActionId(ActionId actionId,
                                                const GridActionVariables& variables)
{
    return write([&] {
        if (!m_connection.update(
                QStringLiteral("DELETE FROM action_variables WHERE action_id = (?)"), {actionId})) {
            return false;
        }
        for (auto it = variables.begin(); it != variables.end(); ++it) {
            const bool binary = it.value().typeId() == QMetaType::QByteArray;
            const QString sql =
                binary ? QStringLiteral("INSERT INTO action_variables (action_id, variable_name, "
                                        "variable_value_blob) VALUES (?, ?, ?)")
                       : QStringLiteral("INSERT INTO action_variables (action_id, variable_name, "
                                        "variable_value) VALUES (?, ?, ?)");
            if (!m_connection.update(sql, {actionId, it.key(), it.value()})) {
                return false;
            }
        }
        return true;
    });
}

bool GridDatabase::deleteExtraVariablesForActionId(ActionId actionId)
{
    return write([&] {
        return m_connection.update(
            QStringLiteral("DELETE FROM action_variables WHERE action_id = (?)"), {actionId});
    });
}

QList<QByteArray> GridDatabase::getScopedBookmarks()
{
    QList<QByteArray> bookmarks;
    for (const SqlRow& row : runQuery(QStringLiteral(
             "SELECT * FROM action_variables WHERE variable_value_blob is not NULL"))) {
        bookmarks << row.value(QStringLiteral("variable_value_blob")).toByteArray();
    }
    return bookmarks;
}
