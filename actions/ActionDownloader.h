#pragma once

#include "actions/ActionFilesController.h"

#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>

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
    ActionServer& m_server;
    ActionFilesController& m_installer;
    AlertHelper& m_alerts;
    WindowPresenter& m_windows;
    bool m_busy = false;
    QPointer<QNetworkReply> m_reply;
};
