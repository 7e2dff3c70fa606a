#pragma once

#include "platform/FileSecretStore.h"
#include "store/SecretStore.h"

#include <optional>

// Logins in the desktop's secret service (Secret Service API or KWallet) through QtKeychain.
// When the session has no secret service, as on a server or in a container, it keeps them
// in the private file store instead, and says so once in the log.
class QtKeychainSecretStore : public SecretStore {
public:
    explicit QtKeychainSecretStore(std::shared_ptr<SecretStore> fallback = {});

    Result readSecret(const QString& service, const QString& account) override;
    Result writeSecret(const QString& service, const QString& account,
                       const QByteArray& secret) override;
    Result deleteSecret(const QString& service, const QString& account) override;

    // Whether a secret service answers on the session bus (probed once).
    bool secretServiceAvailable();

private:
    std::shared_ptr<SecretStore> m_fallback;
    std::optional<bool> m_available;
};
