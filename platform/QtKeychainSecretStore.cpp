#include "platform/QtKeychainSecretStore.h"

#include "core/Log.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusReply>
#include <QEventLoop>
#include <qt6keychain/keychain.h>

namespace {

const QStringList SecretServiceNames = {
    QStringLiteral("org.freedesktop.secrets"),
    QStringLiteral("org.kde.kwalletd6"),
    QStringLiteral("org.kde.kwalletd5"),
    QStringLiteral("org.kde.kwalletd"),
};

// QtKeychain's jobs report asynchronously; the callers here want an answer, so each job
// runs in a local event loop of its own.
void runJob(QKeychain::Job& job)
{
    job.setAutoDelete(false);
    // Its own plain-text QSettings fallback is never wanted: the file store is stricter.
    job.setInsecureFallback(false);
    QEventLoop loop;
    QObject::connect(&job, &QKeychain::Job::finished, &loop, &QEventLoop::quit);
    job.start();
    loop.exec();
}

SecretStore::Result resultOf(const QKeychain::Job& job)
{
    switch (job.error()) {
    case QKeychain::NoError:
        return {SecretStore::Status::Ok, {}, {}};
    case QKeychain::EntryNotFound:
        return {SecretStore::Status::NotFound, {}, job.errorString()};
    default:
        return {SecretStore::Status::Failed, {}, job.errorString()};
    }
}

} // namespace

QtKeychainSecretStore::QtKeychainSecretStore(std::shared_ptr<SecretStore> fallback)
    : m_fallback(fallback ? std::move(fallback) : std::make_shared<FileSecretStore>())
{}

bool QtKeychainSecretStore::secretServiceAvailable()
{
    if (m_available) {
        return *m_available;
    }
    bool available = false;
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (bus.isConnected() && bus.interface()) {
        const QStringList running = bus.interface()->registeredServiceNames().value();
        const QDBusMessage call = QDBusMessage::createMethodCall(
            QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
            QStringLiteral("org.freedesktop.DBus"), QStringLiteral("ListActivatableNames"));
        const QDBusReply<QStringList> activatable = bus.call(call);
        for (const QString& name : SecretServiceNames) {
            if (running.contains(name) ||
                (activatable.isValid() && activatable.value().contains(name))) {
                available = true;
                break;
            }
        }
    }
    if (!available) {
        Log::info(QStringLiteral("No secret service on the session bus; logins are kept in a "
                                 "file readable by this user only"));
    }
    m_available = available;
    return available;
}

SecretStore::Result QtKeychainSecretStore::readSecret(const QString& service,
                                                      const QString& account)
{
    if (!secretServiceAvailable()) {
        return m_fallback->readSecret(service, account);
    }
    QKeychain::ReadPasswordJob job(service);
    job.setKey(account);
    runJob(job);
    Result result = resultOf(job);
    if (result.ok()) {
        result.secret = job.binaryData();
    }
    return result;
}

SecretStore::Result QtKeychainSecretStore::writeSecret(const QString& service,
                                                       const QString& account,
                                                       const QByteArray& secret)
{
    if (!secretServiceAvailable()) {
        return m_fallback->writeSecret(service, account, secret);
    }
    QKeychain::WritePasswordJob job(service);
    job.setKey(account);
    job.setBinaryData(secret);
    runJob(job);
    return resultOf(job);
}

SecretStore::Result QtKeychainSecretStore::deleteSecret(const QString& service,
                                                        const QString& account)
{
    if (!secretServiceAvailable()) {
        return m_fallback->deleteSecret(service, account);
    }
    QKeychain::DeletePasswordJob job(service);
    job.setKey(account);
    runJob(job);
    return resultOf(job);
}
