#include "actions/ActionFileParser.h"
#include "actions/ActionOptionSchemas.h"
#include "cmdline/CmdLineTaskHandler.h"
#include "cmdline/CommandSupport.h"
#include "store/GridAction.h"
#include "store/Icons.h"
#include "tasks/Task.h"
#include "tasks/TaskContext.h"
#include "tasks/TaskOutputHandler.h"
#include "tasks/TaskRunner.h"
#include "tasks/TaskStatus.h"
#include "tasks/TasksController.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

using namespace CommandSupport;
using namespace GridLookup;

void CmdLineTaskHandler::list(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    GridId gridId = db().selectedGridId();
    if (!requestedGrid(client, request, gridId)) {
        return;
    }
    const QString header = has(request, "grid") ? QStringLiteral("\nActions in grid '") +
                                                      str(request, "grid") + QStringLiteral("':\n")
                                                : QStringLiteral("\nAvailable Skelvo Actions:\n");
    QString text = header + ListRule;
    const QList<PlacedAction> actions = actionsOfGrid(gridId);
    if (flag(request, "json")) {
        QJsonArray array;
        for (const PlacedAction& placed : actions) {
            array << QJsonObject{{QStringLiteral("name"), placed.action->name},
                                 {QStringLiteral("type"), placed.action->type},
                                 {QStringLiteral("grid"), placed.grid},
                                 {QStringLiteral("category"), placed.category},
                                 {QStringLiteral("position"), placed.action->position},
                                 {QStringLiteral("servicesKey"), placed.action->servicesKey}};
        }
        client->respond(json(array));
        return;
    }
    if (actions.isEmpty()) {
        client->respond(QStringLiteral("No actions found"));
        return;
    }
    for (const PlacedAction& placed : actions) {
        text += QStringLiteral("%1 (%2) in %3\n")
                    .arg(placed.action->name, placed.action->type, placed.category);
    }
    client->respond(text);
}

void CmdLineTaskHandler::listActionTypes(const CmdLineRequestPtr& client,
                                         const QVariantMap& request)
{
    ActionFileList types;
    for (const ActionFilePtr& record : ActionFileParser::shared().actionFiles()) {
        if (!record->isSharingService && !record->metaValidationFailed &&
            !record->actionName.contains(QStringLiteral("Template"))) {
            types << record;
        }
    }
    if (flag(request, "json")) {
        QJsonArray array;
        for (const ActionFilePtr& record : types) {
            array << QJsonObject{
                {QStringLiteral("type"), record->actionName},
                {QStringLiteral("description"), record->actionDescription},
                {QStringLiteral("handles"), record->handlesString()},
                {QStringLiteral("events"), QJsonArray::fromStringList(record->events)},
                {QStringLiteral("builtIn"), record->isBuiltInAction},
                {QStringLiteral("options"), record->optionsNib}};
        }
        client->respond(json(array));
        return;
    }
    QString text = QStringLiteral("\nSkelvo Action Types:\n") + ListRule;
    for (const ActionFilePtr& record : types) {
        text += QStringLiteral("%1 (%2)\n").arg(record->actionName, record->handlesString());
    }
    client->respond(text);
}

void CmdLineTaskHandler::actionInfo(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    if (!given(client, request, {"type"}, "action type")) {
        return;
    }
    const ActionFilePtr record = ActionFileParser::shared().getActionWithType(str(request, "type"));
    if (!record) {
        client->respond(
            QStringLiteral("Error: Action type '") + str(request, "type") +
            QStringLiteral("' not found. Use 'sk list-action-types' to see available types."));
        return;
    }
    QString description = record->actionDescription;
    QString text = QStringLiteral("%1\n%2\n\n").arg(record->actionName, description);
    text += QStringLiteral("Handles: %1\n").arg(record->handlesString());
    QStringList events;
    if (record->handlesClicked()) {
        events << QStringLiteral("clicked");
    }
    if (record->handlesDragged()) {
        events << QStringLiteral("dragged");
    }
    text += QStringLiteral("Events: %1\n").arg(events.join(QStringLiteral(", ")));
    text += record->optionsNib.isEmpty()
                ? QStringLiteral("Options: none\n")
                : QStringLiteral("Options: set in '%1'\n").arg(record->optionsNib);
    text += ActionOptionSchemas::helpText(record->optionsNib);
    if (record->isBuiltInAction) {
        text += QStringLiteral("Built-in action\n");
    } else {
        text += QStringLiteral("Script: %1\n").arg(record->scriptPath());
    }
    client->respond(text);
}

void CmdLineTaskHandler::addAction(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    if (!given(client, request, {"type"}, "action type")) {
        return;
    }
    if (!db().isOpen() || !db().requiredTablesExist()) {
        client->respond(QStringLiteral("Error: Could not access the actions database."));
        return;
    }
    const QString type = str(request, "type");
    const ActionFilePtr record = ActionFileParser::shared().getActionWithType(type);
    if (!record || record->isSharingService) {
        client->respond(
            QStringLiteral("Error: Action type '") + type +
            QStringLiteral("' not found. Use 'sk list-action-types' to see available types."));
        return;
    }
    const QVariantMap options = request.value(QStringLiteral("options")).toMap();
    if (!options.isEmpty() && record->optionsNib.isEmpty()) {
        client->respond(QStringLiteral("Error: Action type '") + type +
                        QStringLiteral("' does not take configuration options."));
        return;
    }
    const QString cwd = str(request, "cwd");
    // Options are checked against the panel's schema; a built-in's required options are
    // checked even when none are given.
    ValidatedActionOptions validated;
    if (!options.isEmpty() || (record->isBuiltInAction && !record->optionsNib.isEmpty())) {
        QMap<QString, QString> given;
        for (auto it = options.cbegin(); it != options.cend(); ++it) {
            given.insert(it.key(), it.value().toString());
        }
        const auto outcome = ActionOptionSchemas::validate(record->optionsNib, given, cwd, type);
        if (const auto* failure = std::get_if<ActionOptionValidationError>(&outcome)) {
            client->respond(QStringLiteral("Error: ") + failure->message);
            return;
        }
        validated = std::get<ValidatedActionOptions>(outcome);
    }
    GridId gridId = db().selectedGridId();
    if (!requestedGrid(client, request, gridId)) {
        return;
    }
    const QString grid = has(request, "grid") ? str(request, "grid") : gridName(gridId);
    CategoryId categoryId = 0;
    if (has(request, "category")) {
        const SqlRows categories = categoriesNamed(gridId, str(request, "category"));
        if (categories.isEmpty()) {
            client->respond(QStringLiteral("Error: Category '") + str(request, "category") +
                            QStringLiteral("' not found in grid '") + grid + QStringLiteral("'"));
            return;
        }
        categoryId = categories.first().value(QStringLiteral("id")).toLongLong();
    } else {
        const SqlRows categories = db().categoriesForGrid(gridId);
        if (categories.isEmpty()) {
            categoryId = db().addCategoryWithName(QStringLiteral("Actions"), gridId);
        } else {
            categoryId = categories.first().value(QStringLiteral("id")).toLongLong();
        }
    }
    auto action = std::make_shared<GridAction>();
    action->type = type;
    action->name = has(request, "name") ? str(request, "name") : type;
    action->categoryId = categoryId;
    action->position = db().getNextPositionForCategoryId(categoryId);
    action->usingDefaultIcon = true;
    action->servicesKey = GridAction::defaultServicesKeyForName(action->name, gridId);
    for (auto it = validated.variables.cbegin(); it != validated.variables.cend(); ++it) {
        action->extraVariables.insert(it.key(), it.value());
    }
    if (has(request, "icon")) {
        QFile icon(absolutePath(str(request, "icon"), cwd));
        if (!icon.open(QIODevice::ReadOnly)) {
            client->respond(
                QStringLiteral("Error: Cannot read icon image '%1'").arg(icon.fileName()));
            return;
        }
        action->icon = icon.readAll();
        action->usingDefaultIcon = false;
    }
    if (!action->create()) {
        client->respond(QStringLiteral("Error: Failed to add action '%1'").arg(action->name));
        return;
    }
    const QString added =
        QStringLiteral("Added action '%1' (%2) to grid '%3'").arg(action->name, type, grid);
    if (!validated.secret && !validated.secondarySecret) {
        client->respond(added);
        return;
    }
    // Secrets go to the secret store, named by the variables of the action that now exists;
    // an action whose secret cannot be kept is taken out again, so nothing is left half-made.
    client->stayOpen();
    auto failed = [client, action](const QString& error) {
        action->remove();
        client->respond(QStringLiteral("Error: Could not store the secret for action '%1': %2")
                            .arg(action->name, error));
        client->finish();
    };
    auto storeSecondary = [client, action, validated, added, failed] {
        auto done = [client, action, added, failed](bool ok, const QString& error) {
            if (!ok) {
                failed(error);
                return;
            }
            // Storing marks blank secrets in the variables.
            if (!action->update()) {
                failed(QStringLiteral("the action could not be saved"));
                return;
            }
            client->respond(added);
            client->finish();
        };
        if (validated.secondarySecret) {
            action->storeSecondaryKeychainPassword(*validated.secondarySecret, done);
        } else {
            done(true, {});
        }
    };
    if (validated.secret) {
        action->storeKeychainPassword(*validated.secret,
                                      [storeSecondary, failed](bool ok, const QString& error) {
                                          if (ok) {
                                              storeSecondary();
                                          } else {
                                              failed(error);
                                          }
                                      });
    } else {
        storeSecondary();
    }
}

void CmdLineTaskHandler::removeAction(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    if (!given(client, request, {"name"}, "action name")) {
        return;
    }
    const QString name = str(request, "name");
    const auto single = requestedAction(
        client, request, QStringLiteral(". Use --grid to specify which one to remove."));
    if (!single) {
        return;
    }
    single->action->remove();
    client->respond(QStringLiteral("Removed action '") + name + QStringLiteral("'"));
}

void CmdLineTaskHandler::setIcon(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    if (!given(client, request, {"name"}, "action name")) {
        return;
    }
    const bool reset = flag(request, "reset");
    if (!has(request, "icon") && !reset) {
        client->respond(QStringLiteral(
            "Error: Provide an image path or use --reset to restore the default icon."));
        return;
    }
    const QString name = str(request, "name");
    const auto single =
        requestedAction(client, request, QStringLiteral(". Use --grid to specify which one."));
    if (!single) {
        return;
    }
    const PlacedAction& placed = *single;
    GridAction& action = *placed.action;
    if (reset) {
        action.icon.clear();
        action.usingDefaultIcon = true;
        if (!action.update() || !m_context.icons.deleteIcon(action.aId)) {
            client->respond(QStringLiteral("Error: Failed to reset the icon of '%1'").arg(name));
            return;
        }
        client->respond(QStringLiteral("Reset '") + name +
                        QStringLiteral("' to its default icon in grid '") + placed.grid +
                        QStringLiteral("'"));
        return;
    }
    QFile icon(absolutePath(str(request, "icon"), str(request, "cwd")));
    if (!icon.open(QIODevice::ReadOnly)) {
        client->respond(QStringLiteral("Error: Cannot read icon image '%1'").arg(icon.fileName()));
        return;
    }
    action.icon = icon.readAll();
    action.usingDefaultIcon = false;
    if (!m_context.icons.saveIcon(action.icon, action.aId) || !action.update()) {
        client->respond(QStringLiteral("Error: Failed to set the icon of '%1'").arg(name));
        return;
    }
    client->respond(QStringLiteral("Set custom icon for '") + name + QStringLiteral("'"));
}
