#include "store/GridAction.h"

#include "actions/ActionFileParser.h"
#include "core/AlertHelper.h"
#include "core/Log.h"
#include "core/NotificationCenter.h"
#include "core/SecretStore.h"
#include "platform/ApplicationFiles.h"
#include "platform/FileBookmark.h"
#include "platform/FileSystemInfo.h"
#include "store/GridStoreHooks.h"
#include "store/Icons.h"
#include "store/StoreContext.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

// Records are saved through the shared store, so they report where it does.
const StoreContext& store()
{
    return GridDatabase::sharedGridDatabase().context();
}

const QString OpenApplication = QStringLiteral("Open Application");
const QString MoveFiles = QStringLiteral("Move Files");
const QString CopyFiles = QStringLiteral("Copy Files");
// Variables that name the login of an action, when it has them.
const QString ServerVariable = QStringLiteral("server");
const QString UsernameVariable = QStringLiteral("username");
const QString PassphraseVariable = QStringLiteral("passphrase");

const QStringList NetworkVolumeSheets = {
    QStringLiteral("ChooseFolder"),    QStringLiteral("ChooseFolderRename"),
    QStringLiteral("VideoDownloader"), QStringLiteral("ChooseApplication"),
    QStringLiteral("ChooseScript"),
};
const QStringList BookmarkSheets = {
    QStringLiteral("ChooseFolder"),    QStringLiteral("ChooseFolderRename"),
    QStringLiteral("VideoDownloader"), QStringLiteral("ChooseApplication"),
    QStringLiteral("ChooseFile"),      QStringLiteral("ExtendedLogin"),
};
const QStringList BookmarkTypes = {
    QStringLiteral("Open URL"),
    QStringLiteral("Resize Images"),
    QStringLiteral("Convert Images"),
    QStringLiteral("Tinify"),
    QStringLiteral("Instagram Downloader"),
};

QString localizedActionName(const QString& name)
{
    const QByteArray source = name.toUtf8();
    return QCoreApplication::translate("ActionNames", source.constData());
}

} // namespace

bool GridAction::isDropbarType(const QString& type)
{
    return type == QLatin1String("Drop Bar Files") || type == QLatin1String("Drop Bar Text");
}

GridActionPtr GridAction::initWithPath(const QString& path, const ActionFilePtr& action,
                                       bool useWorkspaceIcon, CategoryId categoryId)
{
    const QFileInfo info(path);
    if (path.isEmpty() || !info.exists()) {
        return nullptr;
    }
    const bool isFolder = info.isDir();
    const bool isApplication = !isFolder && ApplicationFiles::isApplication(path);
    if (!isFolder && !isApplication && !action) {
        return nullptr;
    }

    auto record = std::make_shared<GridAction>();
    if (action) {
        record->type = action->actionName;
    } else if (isApplication) {
        record->type = OpenApplication;
    } else {
        const auto& optionKeyHeld = store().hooks.optionKeyHeld;
        record->type = optionKeyHeld && optionKeyHeld() ? CopyFiles : MoveFiles;
    }
    const ActionFilePtr actionFile = ActionFileParser::shared().getActionWithType(record->type);
    if (!actionFile) {
        Log::error(QStringLiteral("Cannot find action with type '%1' in %2")
                       .arg(record->type, QStringLiteral("GridAction::initWithPath")));
        return nullptr;
    }

    record->extraVariables.insert(PathVariable, path);

    GridDatabase& db = GridDatabase::sharedGridDatabase();
    if (categoryId < 1) {
        if (record->type == OpenApplication) {
            categoryId = db.getAppsCategoryIdForSelectedGrid();
        } else if (GridDatabase::folderActionNames().contains(record->type)) {
            categoryId = db.getFoldersCategoryIdForSelectedGrid();
        } else if (GridDatabase::coreFileActionNames().contains(record->type)) {
            categoryId = db.getOrCreateFirstCategoryIdForSelectedGrid();
        } else {
            categoryId = db.getActionsCategoryIdForSelectedGrid();
        }
    }
    record->categoryId = categoryId;
    record->position = static_cast<int>(db.getNumActionsForCategoryId(categoryId));

    if (actionFile->useSelectedItemNameAndIcon) {
        record->name = ApplicationFiles::displayName(path);
        if (record->name.isEmpty()) {
            record->name = isFolder ? info.fileName() : info.completeBaseName();
        }
        Icons& icons = store().icons;
        if (actionFile->optionsNib == QLatin1String("ChooseFile")) {
            record->icon = icons.previewImageForPath(path, 512);
        }
        // The desktop's own icon of the item is what the user recognises; there is no
        // separate icon tool on Linux to ask first.
        Q_UNUSED(useWorkspaceIcon);
        if (record->icon.isEmpty()) {
            record->icon = icons.workspaceIconForPath(path);
        }
    } else {
        record->name = localizedActionName(actionFile->actionName);
        record->icon = Icons::iconForActionFile(*actionFile);
    }
    record->servicesKey = defaultServicesKeyForName(record->name);
    record->usingDefaultIcon = true;
    return record;
}

QString GridAction::defaultServicesKeyForName(const QString& name)
{
    return defaultServicesKeyForName(name, GridDatabase::sharedGridDatabase().selectedGridId());
}

QString GridAction::defaultServicesKeyForName(const QString& name, GridId gridId)
{
    GridDatabase& db = GridDatabase::sharedGridDatabase();
    const QString candidates = name + ServicesKeyCharacters;
    for (const QChar character : candidates) {
        const QString key = QString(character).toUpper();
        if (key.size() != 1 || key == QLatin1String(" ") || !ServicesKeyCharacters.contains(key)) {
            continue;
        }
        const SqlRows users = db.runQuery(
            QStringLiteral("SELECT actions.id FROM actions JOIN categories ON actions.category_id "
                           "= categories.id WHERE actions.services_key = (?) AND "
                           "categories.grid_id = (?)"),
            {key, gridId});
        if (users.isEmpty()) {
            return key;
        }
    }
    return QStringLiteral("");
}

bool GridAction::isServicesKeyAvailable(const QString& key) const
{
    return GridDatabase::sharedGridDatabase()
        .runQuery(QStringLiteral("SELECT actions.id FROM actions JOIN categories ON "
                                 "actions.category_id = categories.id WHERE actions.services_key "
                                 "= (?) AND actions.id != (?) AND categories.grid_id = (SELECT "
                                 "grid_id FROM categories WHERE id = (?))"),
                  {key, aId, categoryId})
        .isEmpty();
}

QVariantMap GridAction::actionDict() const
{
    const QVariant nullMarker = SqliteConnection::nullValue();
    return {
        {QStringLiteral("name"), name},
        {QStringLiteral("services_key"), servicesKey.isNull() ? nullMarker : QVariant(servicesKey)},
        {QStringLiteral("type"), type},
        {QStringLiteral("category_id"), categoryId},
        {QStringLiteral("position"), position},
        {QStringLiteral("bundled_icon"), bundledIcon.isNull() ? nullMarker : QVariant(bundledIcon)},
        {QStringLiteral("using_default_icon"), usingDefaultIcon},
    };
}

QString GridAction::description() const
{
    QVariantMap dict = actionDict();
    dict.insert(QStringLiteral("id"), aId);
    return QStringLiteral("GridAction: %1")
        .arg(QString::fromUtf8(
            QJsonDocument(QJsonObject::fromVariantMap(dict)).toJson(QJsonDocument::Compact)));
}

ActionFilePtr GridAction::actionFile() const
{
    return ActionFileParser::shared().getActionWithType(type);
}

ActionId GridAction::createWithReload(bool reload)
{
    flagNetworkVolume();
    const ActionId newId = GridDatabase::sharedGridDatabase().addAction(*this, extraVariables);
    if (newId == 0) {
        return 0;
    }
    aId = newId;
    store().icons.saveIcon(icon, aId);
    if (reload && store().hooks.prepareGrid) {
        store().hooks.prepareGrid();
    }
    store().notifications.post(Notifications::GridActionPositionsSaved);
    return aId;
}

bool GridAction::update()
{
    return GridDatabase::sharedGridDatabase().updateAction(*this, extraVariables);
}

void GridAction::remove()
{
    GridStoreHooks& hooks = store().hooks;
    if (isDropbarType(type)) {
        // The Drop Bar controller owns these rows and the files behind them.
        if (hooks.removeDropbarItems) {
            hooks.removeDropbarItems(*this);
        }
        GridStore::runOnNextTurn([&hooks] {
            if (hooks.prepareGrid) {
                hooks.prepareGrid();
            }
        });
        return;
    }
    GridDatabase::sharedGridDatabase().deleteAction(aId);
    deleteKeychainPassword();
    if (bundledIcon.isEmpty()) {
        store().icons.deleteIcon(aId);
    }
    if (hooks.prepareGrid) {
        hooks.prepareGrid();
    }
    if (hooks.saveGridActionPositions) {
        hooks.saveGridActionPositions();
    }
    store().notifications.post(Notifications::GridActionPositionsSaved);
}

QString GridAction::pathVariable(const QString& key) const
{
    const QVariant value = extraVariables.value(key);
    return value.typeId() == QMetaType::QString ? value.toString() : QString();
}

void GridAction::flagNetworkVolume()
{
    const ActionFilePtr file = actionFile();
    if (!file || !NetworkVolumeSheets.contains(file->optionsNib)) {
        return;
    }
    const QString path = pathVariable(PathVariable);
    if (path.isEmpty() || !QFileInfo::exists(path)) {
        return; // an unmounted share keeps the flag it had
    }
    if (FileSystemInfo::isOnNetworkFileSystem(path)) {
        extraVariables.insert(NetworkVolumeVariable, QStringLiteral("1"));
    } else {
        extraVariables.remove(NetworkVolumeVariable);
    }
}

bool GridAction::isNetworkVolume() const
{
    return extraVariables.value(NetworkVolumeVariable).toString() == QLatin1String("1");
}

void GridAction::updateScopedBookmark()
{
    const ActionFilePtr file = actionFile();
    if (!BookmarkTypes.contains(type) && !(file && BookmarkSheets.contains(file->optionsNib))) {
        return;
    }
    const QList<std::pair<QString, QString>> paths = {
        {PathVariable, ScopedBookmarkVariable},
        {PathSecondaryVariable, ScopedBookmarkSecondaryVariable},
    };
    for (const auto& [pathKey, bookmarkKey] : paths) {
        const QString path = pathVariable(pathKey);
        if (path.isEmpty() || !QFileInfo::exists(path)) {
            continue;
        }
        // The path existed a moment ago; it may have gone since, or stat may refuse it.
        QString why;
        const auto bookmark = FileBookmark::create(path, &why);
        if (!bookmark) {
            store().alerts.showCriticalAlertWithTitle(
                QStringLiteral("Cannot Read Path"),
                QStringLiteral("Skelvo could not read the path\n'%1': %2\n\nCheck that it is "
                               "still there and try adding this action again.")
                    .arg(path, why));
            continue;
        }
        extraVariables.insert(bookmarkKey, *bookmark);
    }
}

bool GridAction::isReferencedPathMissing() const
{
    const QString path = pathVariable(PathVariable);
    if (path.isEmpty() || isNetworkVolume()) {
        return false;
    }
    return !QFileInfo::exists(path);
}

bool GridAction::isReferencedPathMissingIncludingNetworkVolumes() const
{
    const QString path = pathVariable(PathVariable);
    return !path.isEmpty() && !QFileInfo::exists(path);
}

// --- Secrets

QString GridAction::keychainServiceName() const
{
    const QString server = extraVariables.value(ServerVariable).toString().trimmed();
    QString service = QStringLiteral("Skelvo: ") + type;
    if (!server.isEmpty()) {
        service += QStringLiteral(" (") + server + QLatin1Char(')');
    }
    return service;
}

QString GridAction::secondaryKeychainServiceName() const
{
    return keychainServiceName() + QStringLiteral(" passphrase");
}

QString GridAction::keychainAccountName() const
{
    const QString user = extraVariables.value(UsernameVariable).toString().trimmed();
    return user.isEmpty() ? QStringLiteral("default") : user;
}

void GridAction::storeKeychainPassword(const QString& password, Stored stored)
{
    if (password.isEmpty()) {
        extraVariables.insert(BlankPasswordVariable, QStringLiteral("1"));
    } else {
        extraVariables.remove(BlankPasswordVariable);
    }
    store().secrets.writeSecret(keychainServiceName(), keychainAccountName(), password.toUtf8(),
                                [stored = std::move(stored)](const SecretStore::Result& result) {
                                    stored(result.ok(), result.errorString);
                                });
}

void GridAction::storeSecondaryKeychainPassword(const QString& passphrase, Stored stored)
{
    if (passphrase.isEmpty()) {
        extraVariables.insert(BlankPassphraseVariable, QStringLiteral("1"));
    } else {
        extraVariables.remove(BlankPassphraseVariable);
    }
    store().secrets.writeSecret(secondaryKeychainServiceName(), keychainAccountName(),
                                passphrase.toUtf8(),
                                [stored = std::move(stored)](const SecretStore::Result& result) {
                                    stored(result.ok(), result.errorString);
                                });
}

bool GridAction::isAnotherGridActionUsingKeychainItem(const QString& service,
                                                      const QString& keychainAccountName) const
{
    for (const GridActionPtr& other : GridDatabase::sharedGridDatabase().getAllActions()) {
        if (other->aId == aId || other->keychainAccountName() != keychainAccountName) {
            continue;
        }
        if (other->keychainServiceName() == service ||
            other->secondaryKeychainServiceName() == service) {
            return true;
        }
    }
    return false;
}

void GridAction::deleteKeychainPassword()
{
    const ActionFilePtr file = actionFile();
    if (!file || !file->optionsNibNeedsKeychain()) {
        return;
    }
    const QString account = keychainAccountName();
    const QList<std::pair<QString, QString>> items = {
        {keychainServiceName(),
         QStringLiteral("Failed to delete login from keychain for service %1 with account name "
                        "%2.\n\n%3")},
        {secondaryKeychainServiceName(),
         QStringLiteral("Failed to delete passphrase from keychain for service %1 with account "
                        "name %2.\n\n%3")},
    };
    for (const auto& [service, failureText] : items) {
        if (isAnotherGridActionUsingKeychainItem(service, account)) {
            continue;
        }
        store().secrets.deleteSecret(
            service, account,
            [&alerts = store().alerts, service, account,
             failureText](const SecretStore::Result& result) {
                if (result.status == SecretStore::Status::Failed) {
                    alerts.showCriticalAlertWithTitle(
                        QStringLiteral("Error deleting item from Keychain"),
                        failureText.arg(service, account, result.errorString));
                }
            });
    }
}

void GridAction::retrieveSecret(const QString& service, const QString& variable,
                                const QString& blankMarker, bool showErrors, bool base64Encoded,
                                Retrieved retrieved) const
{
    if (extraVariables.value(blankMarker).toString() == QLatin1String("1")) {
        retrieved(QMap<QString, QString>{{variable, QString()}});
        return;
    }
    const QString account = keychainAccountName();
    store().secrets.readSecret(
        service, account,
        [&alerts = store().alerts, service, account, variable, showErrors, base64Encoded,
         retrieved = std::move(retrieved)](const SecretStore::Result& result) {
            if (result.ok()) {
                const QString value = base64Encoded ? QString::fromLatin1(result.secret.toBase64())
                                                    : QString::fromUtf8(result.secret);
                retrieved(QMap<QString, QString>{{variable, value}});
                return;
            }
            if (result.status == SecretStore::Status::Failed && showErrors) {
                alerts.showCriticalAlertWithTitle(
                    QStringLiteral("Error retrieving item from Keychain"),
                    QStringLiteral("Failed to retrieve login from keychain for service %1 with "
                                   "account name %2.\n\n%3")
                        .arg(service, account, result.errorString));
            }
            retrieved(std::nullopt);
        });
}

void GridAction::retrieveKeychainPasswordShowingErrors(bool showErrors, bool base64Encoded,
                                                       Retrieved retrieved) const
{
    const ActionFilePtr file = actionFile();
    const QString variable = file ? file->keychainPasswordKey() : QString();
    retrieveSecret(keychainServiceName(), variable, BlankPasswordVariable, showErrors,
                   base64Encoded, std::move(retrieved));
}

void GridAction::retrieveSecondaryKeychainPasswordShowingErrors(bool showErrors, bool base64Encoded,
                                                                Retrieved retrieved) const
{
    retrieveSecret(secondaryKeychainServiceName(), PassphraseVariable, BlankPassphraseVariable,
                   showErrors, base64Encoded, std::move(retrieved));
}
