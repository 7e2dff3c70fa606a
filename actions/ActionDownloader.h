#pragma once

#include "actions/ActionFilesController.h"

#include <QHash>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <functional>

class ActionServer;
class AlertHelper;
class QNetworkReply;
class WindowPresenter;

// How a download (or a list of updates) ended.
struct DownloadResult {
    bool ok = false;
    bool cancelled = false;
    // Per action, in order: the install's message or the download's error.
    QStringList messages;
    QStringList installed; // names installed
    // The closing alert after updates ("Update Installed Successfully" and its text); empty
    // when none was due.
    QString title;
    QString message;
};
using DownloadCompletion = std::function<void(const DownloadResult&)>;

// Fetches add-on actions by name from the action server and installs them. One download (or
// update run) at a time. The archive is checked against the md5 the server's manifest gives
// for it, when the manifest lists it.
class ActionDownloader : public QObject {
    Q_OBJECT
public:
    static inline const QString BusyMessage =
        QStringLiteral("Another action download or update is already in progress.");

    ActionDownloader(ActionServer& server, ActionFilesController& installer, AlertHelper& alerts,
                     WindowPresenter& windows, QObject* parent = nullptr);
    ~ActionDownloader() override;

    // With the progress window and the failure alert.
    void downloadAction(const QString& name);
    // Without windows; texts reach `completion` (and the log).
    void downloadActionHeadless(const QString& name, DownloadCompletion completion);
    // Downloads and installs the named actions one after another, then shows the updates
    // alert (unless headless).
    void updateActions(const QStringList& names, bool headless = false,
                       DownloadCompletion completion = {});
    void cancel();

    bool isBusy() const { return m_busy; }

private:
    void start(const QStringList& names, bool updating, bool headless,
               DownloadCompletion completion);
    void showProgress();
    void manifestFetched(const QByteArray& body, const QString& error);
    void downloadNext();
    void downloaded(const QString& name, const QUrl& url, const QByteArray& body,
                    const QString& error);
    void installed(const InstallResult& result);
    void downloadFailed(const QString& name, const QUrl& url, const QString& error);
    void finish();

    ActionServer& m_server;
    ActionFilesController& m_installer;
    AlertHelper& m_alerts;
    WindowPresenter& m_windows;
    bool m_busy = false;
    QPointer<QNetworkReply> m_reply;

    // The run in progress.
    QStringList m_names;
    qsizetype m_index = 0;
    bool m_updating = false;
    bool m_headless = false;
    bool m_cancelled = false;
    bool m_installing = false;
    QUrl m_base;
    QHash<QString, QString> m_md5; // by action name, from the manifest
    QString m_temporaryDirectory;
    DownloadResult m_result;
    DownloadCompletion m_completion;
};
