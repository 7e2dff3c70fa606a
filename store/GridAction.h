#pragma once

#include "actions/ActionFile.h"
#include "core/Identifiers.h"
#include "store/GridDatabase.h"

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <functional>
#include <memory>
#include <optional>

// One action placed in a grid: which action it runs (`type`, an action's name), the title,
// icon and key it shows with, its place, and the option values the user chose for it.
// Saved, updated and removed through GridDatabase.
class GridAction {
public:
    // Variables with a fixed meaning to the grid code.
    static inline const QString PathVariable = QStringLiteral("path");
    static inline const QString PathSecondaryVariable = QStringLiteral("path_secondary");
    static inline const QString ScopedBookmarkVariable = QStringLiteral("scoped_bookmark");
    static inline const QString ScopedBookmarkSecondaryVariable =
        QStringLiteral("scoped_bookmark_secondary");
    static inline const QString NetworkVolumeVariable = QStringLiteral("network_volume");
    static inline const QString BlankPasswordVariable = QStringLiteral("blank_password");
    static inline const QString BlankPassphraseVariable = QStringLiteral("blank_passphrase");
    static inline const QString ServicesKeyCharacters =
        QStringLiteral("ABCDEFGHIJKLKMNOPQRSTUVWXYZ0123456789");

    bool usingDefaultIcon = false;
    bool showQuestionMark = false;
    QString name;
    QString servicesKey; // one character, or empty
    QString type;
    QString bundledIcon; // null when the action uses no bundled icon
    QByteArray icon;     // encoded image data; kept in the icon cache, not in the row
    CategoryId categoryId = 0;
    int position = 0;
    ActionId aId = 0; // 0 until saved
    GridActionVariables extraVariables;

    // Builds an unsaved record from a dropped path and, optionally, the action to use;
    // none for a missing path, an unsuitable path without an action, or an unknown type.
    static std::shared_ptr<GridAction> initWithPath(const QString& path,
                                                    const ActionFilePtr& action = nullptr,
                                                    bool useWorkspaceIcon = false,
                                                    CategoryId categoryId = 0);

    // The first free key for `name` in the grid (the selected one when not given).
    static QString defaultServicesKeyForName(const QString& name);
    static QString defaultServicesKeyForName(const QString& name, GridId gridId);
    // Whether `key` is free for this action in the grid of its category.
    bool isServicesKeyAvailable(const QString& key) const;

    // The named parameters of the store's insert and update statements.
    QVariantMap actionDict() const;
    QString description() const;
    ActionFilePtr actionFile() const;
    std::shared_ptr<GridAction> copy() const { return std::make_shared<GridAction>(*this); }

    ActionId create() { return createWithReload(false); }
    ActionId createWithReload(bool reload);
    bool update();
    void remove();

    void flagNetworkVolume();
    bool isNetworkVolume() const;
    void updateScopedBookmark();
    bool isReferencedPathMissing() const;
    bool isReferencedPathMissingIncludingNetworkVolumes() const;

    // --- Secrets. An action's login lives in the secret store under a service and account
    // name made from its type and its variables; actions that share both share the login.
    QString keychainServiceName() const;
    QString secondaryKeychainServiceName() const; // the key passphrase of SSH logins
    QString keychainAccountName() const;
    // The secret calls answer through their continuation, on the main thread, before or
    // after they return, as the secret store does.
    using Stored = std::function<void(bool ok, const QString& error)>;
    using Retrieved = std::function<void(const std::optional<QMap<QString, QString>>&)>;
    // Also marks a blank password in the variables (save the action afterwards).
    void storeKeychainPassword(const QString& password, Stored stored);
    void storeSecondaryKeychainPassword(const QString& passphrase, Stored stored);
    // Deletes the login and passphrase unless another grid action uses the same item.
    void deleteKeychainPassword();
    bool isAnotherGridActionUsingKeychainItem(const QString& service,
                                              const QString& keychainAccountName) const;
    // One entry, the password variable's name to the password (base64 when asked); none when
    // there is no stored password (or it could not be read, shown when asked).
    void retrieveKeychainPasswordShowingErrors(bool showErrors, bool base64Encoded,
                                               Retrieved retrieved) const;
    void retrieveSecondaryKeychainPasswordShowingErrors(bool showErrors, bool base64Encoded,
                                                        Retrieved retrieved) const;

    static bool isDropbarType(const QString& type);

private:
    QString pathVariable(const QString& key) const;
    void retrieveSecret(const QString& service, const QString& variable, const QString& blankMarker,
                        bool showErrors, bool base64Encoded, Retrieved retrieved) const;
};

using GridActionPtr = std::shared_ptr<GridAction>;
