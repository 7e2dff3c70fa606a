#pragma once

#include "builtin/BuiltInAction.h"
#include "platform/SshSession.h"

#include <QStringList>
#include <QThread>

#include <atomic>
#include <memory>

// "SFTP Upload": dropped files (or, with Option, a zip of several files or of one folder)
// go to `remote_path` on an SSH server; with `root_url` set a single upload hands back its
// web address. Each instance uploads on its own worker thread, one file after the other.
class SftpUploadAction : public BuiltInAction {
    Q_OBJECT
public:
    SftpUploadAction() = default;
    ~SftpUploadAction() override;

    void runWithDraggedUrls(const QList<QUrl>& urls) override;
    void runTestConnection(const ActionFile& actionFile, const QVariantMap& variables) override;
    void cancel() override;

    // `root_url` and the file name joined with exactly one slash, the name percent-encoded.
    static QString resultUrl(const QString& rootUrl, const QString& fileName);

    // What the worker ends with.
    struct Outcome {
        enum class Kind { Uploaded, Connected, Notify, Alert };
        Kind kind = Kind::Notify;
        QString title;
        QString message;
        QStringList uploaded; // final names on the server
        QString hostKeyNote;  // set when the server was met for the first time
    };

private:
    // Reads the login's secrets, then calls `next` with the login (or fails the run).
    void withLogin(const QVariantMap& variables, std::function<void(const SshLogin&)> next);
    void start(const SshLogin& login, const QStringList& paths, bool zip, bool testOnly);
    void ended(const Outcome& outcome);
    void failWithAlert(const QString& title, const QString& message);

    std::shared_ptr<std::atomic_bool> m_cancel = std::make_shared<std::atomic_bool>(false);
    QThread* m_worker = nullptr;
    bool m_testOnly = false;
};
