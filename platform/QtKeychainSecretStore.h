#pragma once

#include "core/SecretStore.h"

#include <functional>
#include <optional>

// Logins in the desktop's secret service (Secret Service API or KWallet) through QtKeychain
// whenever one answers on the session bus, with or without a display. Without one, as on a
// server or in a container, they go to the private file store; the bus is asked again
// later, and a login found only in the file once a secret service is there moves into it,
// so that each login lives in one place.
class QtKeychainSecretStore : public SecretStore {
public:
    using Probe = std::function<bool()>;
    static constexpr qint64 DefaultRetryMs = 60 * 1000;

    // QtKeychain on the session bus, the private file store as fallback.
    QtKeychainSecretStore();
    // `secretService` is used while `probe` says one answers (tests give both).
    QtKeychainSecretStore(std::shared_ptr<SecretStore> secretService,
                          std::shared_ptr<SecretStore> fallback, Probe probe,
                          qint64 retryMs = DefaultRetryMs);

    void readSecret(const QString& service, const QString& account, Done done) override;
    void writeSecret(const QString& service, const QString& account, const QByteArray& secret,
                     Done done) override;
    void deleteSecret(const QString& service, const QString& account, Done done) override;

    // Whether a secret service answers; a "no" is asked again once `retryMs` has passed.
    bool secretServiceAvailable();
    // Whether one of the known secret services is registered or activatable on the bus.
    static bool probeSessionBus();

private:
    // What a continuation holds: the stores it still needs, and this store only while it
    // lives (a store replaced while a job waits must not be touched afterwards).
    struct Guard {
        std::shared_ptr<SecretStore> service;
        std::shared_ptr<SecretStore> fallback;
        QtKeychainSecretStore* store = nullptr;
        std::weak_ptr<const bool> alive;
        void markUnavailable() const;
    };
    Guard guard();
    // The service turned out to be gone (no backend): ask the bus again later.
    void markUnavailable();

    std::shared_ptr<const bool> m_alive = std::make_shared<const bool>(true);
    std::shared_ptr<SecretStore> m_service;
    std::shared_ptr<SecretStore> m_fallback;
    Probe m_probe;
    qint64 m_retryMs;
    std::optional<bool> m_available;
    qint64 m_probedAt = 0;
    bool m_loggedFallback = false;
};
