#include "platform/QtKeychainSecretStore.h"

#include "core/Log.h"
#include "platform/FileSecretStore.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusReply>
#include <QDateTime>
#include <qt6keychain/keychain.h>

namespace {

const QStringList SecretServiceNames = {
    QStringLiteral("org.freedesktop.secrets"),
    QStringLiteral("org.kde.kwalletd6"),
    QStringLiteral("org.kde.kwalletd5"),
    QStringLiteral("org.kde.kwalletd"),
};

// Marks a job that found no secret service behind the bus name.
const QString NoBackendMarker = QStringLiteral("(no secret service)");

SecretStore::Result resultOf(const QKeychain::Job& job)
{
    switch (job.error()) {
    case QKeychain::NoError:
        return {SecretStore::Status::Ok, {}, {}};
    case QKeychain::EntryNotFound:
        return {SecretStore::Status::NotFound, {}, job.errorString()};
    case QKeychain::NoBackendAvailable:
        return {SecretStore::Status::Failed, {}, NoBackendMarker + u' ' + job.errorString()};
    default:
        return {SecretStore::Status::Failed, {}, job.errorString()};
    }
}

bool noBackend(const SecretStore::Result& result)
{
    return result.status == SecretStore::Status::Failed &&
           result.errorString.startsWith(NoBackendMarker);
}

// QtKeychain's jobs: each reports through its finished signal and deletes itself.
class KeychainJobs : public SecretStore {
public:
    void readSecret(const QString& service, const QString& account, Done done) override
    {
        auto* job = new QKeychain::ReadPasswordJob(service);
        job->setKey(account);
        start(job, [job, done = std::move(done)] {
            Result result = resultOf(*job);
            if (result.ok()) {
                result.secret = job->binaryData();
            }
            done(result);
        });
    }
    void writeSecret(const QString& service, const QString& account, const QByteArray& secret,
                     Done done) override
    {
        auto* job = new QKeychain::WritePasswordJob(service);
        job->setKey(account);
        job->setBinaryData(secret);
        start(job, [job, done = std::move(done)] { done(resultOf(*job)); });
    }
    void deleteSecret(const QString& service, const QString& account, Done done) override
    {
        auto* job = new QKeychain::DeletePasswordJob(service);
        job->setKey(account);
        start(job, [job, done = std::move(done)] { done(resultOf(*job)); });
    }

private:
    static void start(QKeychain::Job* job, std::function<void()> finished)
    {
        job->setAutoDelete(true);
        // Its own plain-text QSettings fallback is never wanted: the file store is stricter.
        job->setInsecureFallback(false);
        QObject::connect(job, &QKeychain::Job::finished, job,
                         [finished = std::move(finished)](QKeychain::Job*) { finished(); });
        job->start();
    }
};

} // namespace

QtKeychainSecretStore::QtKeychainSecretStore()
    : QtKeychainSecretStore(std::make_shared<KeychainJobs>(), std::make_shared<FileSecretStore>(),
                            &QtKeychainSecretStore::probeSessionBus)
{}

QtKeychainSecretStore::QtKeychainSecretStore(std::shared_ptr<SecretStore> secretService,
                                             std::shared_ptr<SecretStore> fallback, Probe probe,
                                             qint64 retryMs)
    : m_service(std::move(secretService))
    , m_fallback(std::move(fallback))
    , m_probe(std::move(probe))
    , m_retryMs(retryMs)
{}

bool QtKeychainSecretStore::probeSessionBus()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected() || !bus.interface()) {
        return false;
    }
    const QStringList running = bus.interface()->registeredServiceNames().value();
    const QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("ListActivatableNames"));
    const QDBusReply<QStringList> activatable = bus.call(call);
    for (const QString& name : SecretServiceNames) {
        if (running.contains(name) ||
            (activatable.isValid() && activatable.value().contains(name))) {
            return true;
        }
    }
    return false;
}

bool QtKeychainSecretStore::secretServiceAvailable()
{
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    if (m_available && (*m_available || now - m_probedAt < m_retryMs)) {
        return *m_available;
    }
    const bool available = m_probe && m_probe();
    m_available = available;
    m_probedAt = now;
    if (!available && !m_loggedFallback) {
        Log::info(QStringLiteral("No secret service on the session bus; logins are kept in a "
                                 "file readable by this user only until one appears"));
        m_loggedFallback = true;
    }
    if (available && m_loggedFallback) {
        Log::info(QStringLiteral("A secret service answers now; logins are kept there"));
        m_loggedFallback = false;
    }
    return available;
}

void QtKeychainSecretStore::markUnavailable()
{
    m_available = false;
    m_probedAt = QDateTime::currentMSecsSinceEpoch();
}

QtKeychainSecretStore::Guard QtKeychainSecretStore::guard()
{
    return {m_service, m_fallback, this, m_alive};
}

void QtKeychainSecretStore::Guard::markUnavailable() const
{
    if (!alive.expired()) {
        store->markUnavailable();
    }
}

void QtKeychainSecretStore::readSecret(const QString& service, const QString& account, Done done)
{
    if (!secretServiceAvailable()) {
        m_fallback->readSecret(service, account, std::move(done));
        return;
    }
    m_service->readSecret(
        service, account,
        [self = guard(), service, account, done = std::move(done)](const Result& result) {
            if (noBackend(result)) {
                self.markUnavailable();
                self.fallback->readSecret(service, account, done);
                return;
            }
            if (result.status != Status::NotFound) {
                done(result);
                return;
            }
            // Kept in the file while no secret service answered: move it over now.
            self.fallback->readSecret(
                service, account, [self, service, account, done](const Result& kept) {
                    if (!kept.ok()) {
                        done({Status::NotFound, {}, kept.errorString});
                        return;
                    }
                    self.service->writeSecret(
                        service, account, kept.secret,
                        [self, service, account, kept, done](const Result& moved) {
                            if (moved.ok()) {
                                self.fallback->deleteSecret(service, account, [](const Result&) {});
                            } else {
                                Log::warning(QStringLiteral("Could not move a login into the "
                                                            "secret service: %1")
                                                 .arg(moved.errorString));
                            }
                            done(kept);
                        });
                });
        });
}

void QtKeychainSecretStore::writeSecret(const QString& service, const QString& account,
                                        const QByteArray& secret, Done done)
{
    if (!secretServiceAvailable()) {
        m_fallback->writeSecret(service, account, secret, std::move(done));
        return;
    }
    m_service->writeSecret(
        service, account, secret,
        [self = guard(), service, account, secret, done = std::move(done)](const Result& result) {
            if (noBackend(result)) {
                self.markUnavailable();
                self.fallback->writeSecret(service, account, secret, done);
                return;
            }
            if (result.ok()) {
                // An older copy in the file would come back if the service went away.
                self.fallback->deleteSecret(service, account, [](const Result&) {});
            }
            done(result);
        });
}

void QtKeychainSecretStore::deleteSecret(const QString& service, const QString& account, Done done)
{
    if (!secretServiceAvailable()) {
        m_fallback->deleteSecret(service, account, std::move(done));
        return;
    }
    m_service->deleteSecret(
        service, account,
        [self = guard(), service, account, done = std::move(done)](const Result& result) {
            if (noBackend(result)) {
                self.markUnavailable();
                self.fallback->deleteSecret(service, account, done);
                return;
            }
            self.fallback->deleteSecret(service, account, [result, done](const Result& kept) {
                if (result.status == Status::NotFound && kept.status != Status::NotFound) {
                    done(kept);
                    return;
                }
                done(result);
            });
        });
}
