#pragma once

#include <QByteArray>
#include <QString>

#include <functional>
#include <memory>

// Where grid actions keep their logins: a secret per service and account name. The desktop
// uses the system's secret service; without one the engine keeps them in a file that
// only the user can read.
//
// The calls never wait: each result reaches its continuation, on the main thread, either
// before the call returns (the file store) or later (a secret service on the bus).
class SecretStore {
public:
    enum class Status { Ok, NotFound, Failed };
    struct Result {
        Status status = Status::Failed;
        QByteArray secret;
        QString errorString;
        bool ok() const { return status == Status::Ok; }
    };
    using Done = std::function<void(const Result&)>;

    virtual ~SecretStore() = default;
    virtual void readSecret(const QString& service, const QString& account, Done done) = 0;
    virtual void writeSecret(const QString& service, const QString& account,
                             const QByteArray& secret, Done done) = 0;
    // Deleting what is not there is NotFound, not a failure of the store.
    virtual void deleteSecret(const QString& service, const QString& account, Done done) = 0;
};
