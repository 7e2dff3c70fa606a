#pragma once

#include "store/SecretStore.h"

// Secrets in one JSON file readable by the user only (folder 0700, file 0600), for runs
// without a secret service (servers, containers, tests). Writes are atomic and serialised
// between processes with a lock file.
class FileSecretStore : public SecretStore {
public:
    // Without a path the file is "Secrets/logins.json" in the support folder of the moment.
    explicit FileSecretStore(QString filePath = {});

    QString filePath() const;

    Result readSecret(const QString& service, const QString& account) override;
    Result writeSecret(const QString& service, const QString& account,
                       const QByteArray& secret) override;
    Result deleteSecret(const QString& service, const QString& account) override;

private:
    QString m_filePath;
};
