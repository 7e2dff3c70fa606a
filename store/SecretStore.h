#pragma once

#include <QByteArray>
#include <QString>

#include <memory>

// Where grid actions keep their logins: a secret per service and account name. The desktop
// installs the system's secret service; without one the engine keeps them in a file that
// only the user can read.
class SecretStore {
public:
    enum class Status { Ok, NotFound, Failed };
    struct Result {
        Status status = Status::Failed;
        QByteArray secret;
        QString errorString;
        bool ok() const { return status == Status::Ok; }
    };

    virtual ~SecretStore() = default;
    virtual Result readSecret(const QString& service, const QString& account) = 0;
    virtual Result writeSecret(const QString& service, const QString& account,
                               const QByteArray& secret) = 0;
    // Deleting what is not there is NotFound, not a failure of the store.
    virtual Result deleteSecret(const QString& service, const QString& account) = 0;

    // The store in use; the private file store until the application installs another.
    static SecretStore& shared();
    static void setShared(std::shared_ptr<SecretStore> store);
};
