#include "builtin/SftpUploadAction.h"

#include "actions/ActionFile.h"
#include "builtin/BuiltInActionTaskBridge.h"
#include "core/AlertHelper.h"
#include "core/Log.h"
#include "core/SupportPaths.h"
#include "core/WindowPresenter.h"
#include "platform/ZipWriter.h"
#include "tasks/DebugConsoleController.h"
#include "tasks/TaskContext.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QPointer>

namespace {

using Outcome = SftpUploadAction::Outcome;
using Kind = Outcome::Kind;

const QString ZipRefusal = QStringLiteral(
    "You can only drop multiple files or a folder which will be zipped and uploaded.\n\nYou "
    "cannot currently drop multiple folders or a mix of files/folders when zipping.");

// Tests shorten the stall time-out so that a silent server is noticed quickly.
SshTimeouts timeouts()
{
    SshTimeouts limits;
    bool ok = false;
    const double stall = qEnvironmentVariable("SKELVO_SSH_STALL_SECONDS").toDouble(&ok);
    if (ok && stall > 0) {
        limits.stallMs = int(stall * 1000);
    }
    return limits;
}

QString variableOf(const QVariantMap& variables, const char* key)
{
    return variables.value(QString::fromUtf8(key)).toString().trimmed();
}

// What the worker needs besides the login.
struct Job {
    SshLogin login;
    QStringList files;   // to upload, in order
    QStringList sources; // to zip into files.first() first, when zipping
    QString zipFolder;   // the temporary folder of the archive
    QString remotePath;
    bool testOnly = false;
};

// Status text and percent for the row; called from the worker.
using Report = std::function<void(const QString& status, int percent)>;

Outcome work(const Job& job, const std::atomic_bool* cancelled, const Report& report)
{
    const auto alert = [](const QString& title, const QString& message) {
        return Outcome{Kind::Alert, title, message, {}, {}};
    };
    const auto notify = [](const QString& message) {
        return Outcome{Kind::Notify, {}, message, {}, {}};
    };
    const auto removeArchive = qScopeGuard([&job] {
        if (!job.zipFolder.isEmpty()) {
            QDir(job.zipFolder).removeRecursively();
        }
    });

    if (!job.sources.isEmpty()) {
        report(job.sources.size() == 1
                   ? QStringLiteral("Zipping ") + QFileInfo(job.sources.first()).fileName()
                   : QStringLiteral("Zipping files..."),
               0);
        QStringList entries = job.sources;
        if (job.sources.size() == 1) {
            // A folder's archive holds what is inside it.
            entries.clear();
            const QDir folder(job.sources.first());
            for (const QString& name : folder.entryList(QDir::AllEntries | QDir::Hidden |
                                                        QDir::NoDotAndDotDot | QDir::System)) {
                entries << folder.filePath(name);
            }
        }
        int lastPercent = -1;
        const ZipWriter::Result zipped = ZipWriter::write(
            job.files.first(), entries,
            [&](qint64 done, qint64 total) {
                const int percent = total > 0 ? int(done * 100 / total) : 0;
                if (percent != lastPercent) {
                    lastPercent = percent;
                    report(QString(), percent);
                }
            },
            cancelled);
        if (zipped.cancelled) {
            return notify(QStringLiteral("Cancelled"));
        }
        if (!zipped.ok) {
            return alert(QStringLiteral("Zip Failed"), zipped.error);
        }
    }

    report(QStringLiteral("Connecting to ") + job.login.host, -1);
    SshSession session(KnownHosts::standard(), timeouts(), cancelled);
    Outcome outcome;
    const bool opened = session.open(job.login);
    if (session.hostKey().verdict == KnownHosts::Verdict::Recorded) {
        outcome.hostKeyNote = QStringLiteral("First connection to %1: its host key %2 was "
                                             "recorded.")
                                  .arg(KnownHosts::hostEntry(job.login.host, job.login.port),
                                       session.hostKey().fingerprint);
    }
    const auto withNote = [&outcome](Outcome ending) {
        ending.hostKeyNote = outcome.hostKeyNote;
        return ending;
    };
    if (!opened) {
        return withNote(notify(session.error()));
    }
    if (job.testOnly) {
        outcome.kind = Kind::Connected;
        return outcome;
    }

    const QString folder = job.remotePath;
    const SshSession::PathState state = session.stat(folder);
    if (state == SshSession::PathState::Missing && !session.makeFolders(folder)) {
        if (session.failure() != SshSession::Failure::Sftp) {
            return withNote(notify(session.error()));
        }
        return withNote(alert(QStringLiteral("Create Directory Failed"),
                              QStringLiteral("Failed to create remote directory at path \"%1\"\n\n"
                                             "Check your remote path and ensure you have "
                                             "permissions to write to this path.")
                                  .arg(folder)));
    }
    if (state == SshSession::PathState::Failed || state == SshSession::PathState::NotFolder) {
        return withNote(notify(QStringLiteral("Failed to check path on remote at \"%1\"")
                                   .arg(folder.isEmpty() ? QStringLiteral(".") : folder)));
    }

    qint64 total = 0;
    for (const QString& file : job.files) {
        total += QFileInfo(file).size();
    }
    qint64 done = 0;
    int lastPercent = -1;
    report(job.files.size() == 1
               ? QStringLiteral("Uploading ") + QFileInfo(job.files.first()).fileName()
               : QStringLiteral("Uploading %1 files").arg(job.files.size()),
           0);
    for (const QString& file : job.files) {
        const QString name = QFileInfo(file).fileName();
        SshSession::UploadStep step = SshSession::UploadStep::Write;
        const bool uploaded = session.upload(
            file, folder, name,
            [&](qint64 sent) {
                const int percent = total > 0 ? int((done + sent) * 100 / total) : 100;
                if (percent != lastPercent) {
                    lastPercent = percent;
                    report(QString(), percent);
                }
            },
            &step);
        if (!uploaded) {
            if (session.failure() == SshSession::Failure::Cancelled) {
                return withNote(notify(QStringLiteral("Cancelled")));
            }
            const QString path = SshSession::joinRemote(folder, name);
            if (step == SshSession::UploadStep::Open && session.pathRefused()) {
                return withNote(alert(QStringLiteral("Upload Failed"),
                                      QStringLiteral("Failed to create file on remote at '%1'\n\n"
                                                     "Check your remote path setting is correct "
                                                     "and ensure you have permissions to "
                                                     "read/write to this path.")
                                          .arg(path)));
            }
            return withNote(alert(QStringLiteral("Upload Failed"),
                                  (step == SshSession::UploadStep::Open
                                       ? QStringLiteral("Failed opening remote file")
                                       : QStringLiteral("Failed uploading to '%1'").arg(path)) +
                                      QStringLiteral("\n\n") + session.error()));
        }
        done += QFileInfo(file).size();
        outcome.uploaded << name;
    }
    outcome.kind = Kind::Uploaded;
    return outcome;
}

} // namespace

SftpUploadAction::~SftpUploadAction()
{
    m_cancel->store(true);
    if (m_worker) {
        m_worker->wait();
        delete m_worker;
    }
}

QString SftpUploadAction::resultUrl(const QString& rootUrl, const QString& fileName)
{
    QString base = rootUrl.trimmed();
    while (base.endsWith(u'/')) {
        base.chop(1);
    }
    return base + u'/' + QString::fromLatin1(QUrl::toPercentEncoding(fileName));
}

void SftpUploadAction::cancel()
{
    m_cancel->store(true);
}

void SftpUploadAction::failWithAlert(const QString& title, const QString& message)
{
    Log::warning(QStringLiteral("%1: %2").arg(title, message));
    tasks().alerts.showCriticalAlertWithTitle(title, message, this);
    builtInActionTaskBridge()->completeTaskWithSuccess(false);
    finish();
}

void SftpUploadAction::withLogin(const QVariantMap& variables,
                                 std::function<void(const SshLogin&)> next)
{
    SshLogin login;
    login.host = variableOf(variables, "server");
    login.user = variableOf(variables, "username");
    bool portOk = false;
    login.port = variableOf(variables, "port").toInt(&portOk);
    if (!portOk || login.port <= 0 || login.port > 65535) {
        login.port = 22;
    }
    login.privateKey = variableOf(variables, "path");
    login.publicKey = variableOf(variables, "path_secondary");
    if (login.host.isEmpty()) {
        failWithMessage(QStringLiteral("No server is set for this action."));
        return;
    }
    // Key settings of an older form named only the private key.
    if (!login.privateKey.isEmpty() && login.publicKey.isEmpty()) {
        Alert alert;
        alert.style = Alert::Style::Critical;
        alert.title = QStringLiteral("SSH Keys");
        alert.message = QStringLiteral("Due to an update to this action you need to reselect "
                                       "your SSH keys or provide a password.");
        alert.buttons = {QStringLiteral("Configure SSH Keys"), QStringLiteral("Cancel")};
        alert.origin = this;
        const ActionId id = gridAction() ? gridAction()->aId : 0;
        tasks().alerts.runAlert(alert, [&windows = tasks().windows, id](int button) {
            if (button == 0 && id != 0) {
                windows.showEditWindowForAction(id);
            }
        });
        builtInActionTaskBridge()->completeTaskWithSuccess(false);
        finish();
        return;
    }
    const GridActionPtr action = gridAction();
    const bool keyLogin = !login.privateKey.isEmpty();
    QPointer<SftpUploadAction> self = this;
    const auto withPassphrase = [self, action, next, variables, keyLogin](SshLogin partial) {
        if (!keyLogin || variables.contains(QStringLiteral("passphrase")) || !action) {
            partial.passphrase = variables.value(QStringLiteral("passphrase")).toString();
            next(partial);
            return;
        }
        action->retrieveSecondaryKeychainPasswordShowingErrors(
            true, false, [self, partial, next](const std::optional<QMap<QString, QString>>& found) {
                if (!self) {
                    return;
                }
                SshLogin withSecret = partial;
                if (found && !found->isEmpty()) {
                    withSecret.passphrase = found->first();
                }
                next(withSecret);
            });
    };
    if (keyLogin || variables.contains(QStringLiteral("password")) || !action) {
        login.hasPassword = !keyLogin && variables.contains(QStringLiteral("password"));
        login.password = variables.value(QStringLiteral("password")).toString();
        withPassphrase(login);
        return;
    }
    action->retrieveKeychainPasswordShowingErrors(
        true, false,
        [self, login, withPassphrase](const std::optional<QMap<QString, QString>>& found) mutable {
            if (!self) {
                return;
            }
            if (found && !found->isEmpty()) {
                login.hasPassword = true;
                login.password = found->first();
            }
            withPassphrase(login);
        });
}

void SftpUploadAction::runWithDraggedUrls(const QList<QUrl>& urls)
{
    QStringList paths;
    for (const QUrl& url : urls) {
        if (url.isLocalFile()) {
            paths << url.toLocalFile();
        }
    }
    if (paths.isEmpty()) {
        failWithMessage(QStringLiteral("Nothing to upload: only local files can be uploaded."));
        return;
    }
    const bool zip = keyModifier().compare(QStringLiteral("option"), Qt::CaseInsensitive) == 0;
    int folders = 0;
    for (const QString& path : paths) {
        folders += QFileInfo(path).isDir() ? 1 : 0;
    }
    if (zip && !(folders == 0 && paths.size() > 1) && !(folders == 1 && paths.size() == 1)) {
        failWithAlert(QStringLiteral("SFTP Upload"), ZipRefusal);
        return;
    }
    if (!zip && folders > 0) {
        failWithMessage(QStringLiteral("Folders are uploaded as a zip archive: hold Alt (Option) "
                                       "while dropping a folder."));
        return;
    }
    QVariantMap variables;
    if (const GridActionPtr action = gridAction()) {
        for (auto it = action->extraVariables.cbegin(); it != action->extraVariables.cend(); ++it) {
            variables.insert(it.key(), it.value());
        }
    }
    QPointer<SftpUploadAction> self = this;
    withLogin(variables, [self, paths, zip](const SshLogin& login) {
        if (self) {
            self->start(login, paths, zip, false);
        }
    });
}

void SftpUploadAction::runTestConnection(const ActionFile&, const QVariantMap& variables)
{
    QPointer<SftpUploadAction> self = this;
    withLogin(variables, [self](const SshLogin& login) {
        if (self) {
            self->start(login, {}, false, true);
        }
    });
}

void SftpUploadAction::start(const SshLogin& login, const QStringList& paths, bool zip,
                             bool testOnly)
{
    m_testOnly = testOnly;
    Job job;
    job.login = login;
    job.testOnly = testOnly;
    job.remotePath = variable(QStringLiteral("remote_path")).trimmed();
    job.files = paths;
    if (zip) {
        job.zipFolder = SupportPaths::uniqueTemporaryDirectory();
        if (job.zipFolder.isEmpty() || !QDir(job.zipFolder).exists()) {
            failWithAlert(QStringLiteral("Zip Failed"),
                          QStringLiteral("Failed to create zip temporary directory ") +
                              job.zipFolder);
            return;
        }
        const QString name = paths.size() == 1
                                 ? QFileInfo(paths.first()).fileName() + QStringLiteral(".zip")
                                 : QStringLiteral("files.zip");
        job.sources = paths;
        job.files = {QDir(job.zipFolder).filePath(name)};
    }
    BuiltInActionTaskBridge* bridge = builtInActionTaskBridge();
    if (!testOnly) {
        bridge->beginProgress(true);
    }

    QPointer<SftpUploadAction> self = this;
    const Report report = [self](const QString& status, int percent) {
        QMetaObject::invokeMethod(
            self.data(),
            [self, status, percent] {
                if (!self) {
                    return;
                }
                BuiltInActionTaskBridge* row = self->builtInActionTaskBridge();
                if (!status.isEmpty()) {
                    row->setStatusText(status);
                }
                row->setIndeterminate(percent < 0);
                if (percent >= 0) {
                    row->setProgress(percent);
                }
            },
            Qt::QueuedConnection);
    };
    const std::shared_ptr<std::atomic_bool> cancel = m_cancel;
    m_worker = QThread::create([self, job, cancel, report] {
        const Outcome outcome = work(job, cancel.get(), report);
        QMetaObject::invokeMethod(
            self.data(),
            [self, outcome] {
                if (self) {
                    self->ended(outcome);
                }
            },
            Qt::QueuedConnection);
    });
    m_worker->setObjectName(QStringLiteral("sftp-upload-queue"));
    m_worker->start();
}

void SftpUploadAction::ended(const Outcome& outcome)
{
    if (!outcome.hostKeyNote.isEmpty()) {
        Log::info(outcome.hostKeyNote);
        tasks().debugConsole.append(outcome.hostKeyNote + u'\n');
    }
    const QString note =
        outcome.hostKeyNote.isEmpty() ? QString() : QStringLiteral("\n") + outcome.hostKeyNote;
    switch (outcome.kind) {
    case Kind::Alert:
        failWithAlert(outcome.title, outcome.message + note);
        return;
    case Kind::Notify:
        if (m_testOnly) {
            failWithAlert(QStringLiteral("Connection Failed"), outcome.message + note);
            return;
        }
        failWithMessage(outcome.message + note);
        return;
    case Kind::Connected:
        tasks().alerts.showAlertWithTitle(QStringLiteral("Connection Successful"),
                                          QStringLiteral("SFTP connection succeeded."), this);
        builtInActionTaskBridge()->completeTaskWithSuccess(true);
        finish();
        return;
    case Kind::Uploaded:
        break;
    }
    QString rootUrl = variable(QStringLiteral("root_url")).trimmed();
    if (rootUrl.isEmpty()) {
        rootUrl = variable(QStringLiteral("url")).trimmed(); // grids saved before the rename
    }
    if (outcome.uploaded.size() == 1 && !rootUrl.isEmpty()) {
        returnResult(resultUrl(rootUrl, outcome.uploaded.first()), false);
    }
    playFinishedSoundIfWanted();
    succeedWithMessage(QStringLiteral("Upload Complete") + note);
}
