#pragma once

#include "core/SecretStore.h"

// Secrets in one JSON file readable by the user only (folder 0700, file 0600), for runs
// without a secret service (servers, containers, tests). Writes are atomic and serialised
// between processes with a lock file. Its answers arrive before the calls return.
class FileSecretStore : public SecretStore {
public:
    // Without a path the file is "Secrets/logins.json" in the support folder of the moment.
    explicit FileSecretStore(QString filePath = {});

    QString filePath() const;

    void readSecret(const QString& service, const QString& account, Done done) override;
    void writeSecret(const QString& service, const QString& account, const QByteArray& secret,
                     Done done) override;
    void deleteSecret(const QString& service, const QString& account, Done done) override;

    Result read(const QString& service, const QString& account);
    Result write(const QString& service, const QString& account, const QByteArray& secret);
    Result remove(const QString& service, const QString& account);

private:
    QString m_filePath;
};
