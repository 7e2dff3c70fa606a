#include "actions/ActionDownloader.h"

#include "actions/ActionServer.h"
#include "core/AlertHelper.h"
#include "core/FileOperations.h"
#include "core/Log.h"
#include "core/SupportPaths.h"
#include "core/WindowPresenter.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QNetworkReply>
#include <QSaveFile>

namespace {

const QString SupportLine =
    QStringLiteral("If the problem persists, contact the action server's administrator.");

double nowSeconds()
{
    return static_cast<double>(QDateTime::currentMSecsSinceEpoch()) / 1000.0;
}

} // namespace

ActionDownloader::ActionDownloader(ActionServer& server, ActionFilesController& installer,
                                   AlertHelper& alerts, WindowPresenter& windows, QObject* parent)
    : QObject(parent)
    , m_server(server)
    , m_installer(installer)
    , m_alerts(alerts)
    , m_windows(windows)
{}

ActionDownloader::~ActionDownloader()
{
    if (m_reply) {
        // Its handler points at this object.
        m_reply->disconnect();
        m_reply->abort();
        m_reply->deleteLater();
    }
}

void ActionDownloader::downloadAction(const QString& name)
{
    start({name}, false, false, {});
}

void ActionDownloader::downloadActionHeadless(const QString& name, DownloadCompletion completion)
{
    start({name}, false, true, std::move(completion));
}

void ActionDownloader::updateActions(const QStringList& names, bool headless,
                                     DownloadCompletion completion)
{
    start(names, true, headless, std::move(completion));
}

void ActionDownloader::start(const QStringList& names, bool updating, bool headless,
                             DownloadCompletion completion)
{
    if (m_busy) {
        Log::warning(BusyMessage);
        if (!headless) {
            m_alerts.runAlert({Alert::Style::Warning, BusyMessage, QString(), {}, this});
        }
        if (completion) {
            DownloadResult refused;
            refused.messages << BusyMessage;
            completion(refused);
        }
        return;
    }
    m_names.clear();
    for (const QString& name : names) {
        m_names << ActionServer::decodedName(name);
    }
    m_index = 0;
    m_updating = updating;
    m_headless = headless;
    m_cancelled = false;
    m_installing = false;
    m_md5.clear();
    m_result = {};
    m_completion = std::move(completion);
    m_base = m_server.baseUrl();
    m_busy = true;
    if (!m_base.isValid()) {
        for (const QString& name : std::as_const(m_names)) {
            downloadFailed(name, QUrl(), ActionServer::notConfiguredMessage());
        }
        finish();
        return;
    }
    showProgress();
    // The manifest gives the md5 each archive is checked against.
    const QUrl url = ActionServer::manifestUrl(m_base, nowSeconds());
    m_reply = m_server.fetch(url, [this](const QByteArray& body, const QString& error) {
        m_reply = nullptr;
        manifestFetched(body, error);
    });
}

void ActionDownloader::showProgress()
{
    if (m_headless || m_names.isEmpty()) {
        return;
    }
    QString message;
    if (!m_updating) {
        message = QStringLiteral("Downloading %1 Action...").arg(m_names.constFirst());
    } else if (m_names.size() == 1) {
        message = QStringLiteral("Updating %1 Action...").arg(m_names.constFirst());
    } else {
        message = QString::asprintf("Updating %ld Actions...", static_cast<long>(m_names.size()));
    }
    m_windows.showProgressWindow(message, [this] { cancel(); });
}

void ActionDownloader::manifestFetched(const QByteArray& body, const QString& error)
{
    if (m_cancelled) {
        finish();
        return;
    }
    if (!error.isEmpty()) {
        Log::warning(QStringLiteral("The action server's manifest could not be fetched, so the "
                                    "download is not checked against an md5: %1")
                         .arg(error));
    }
    for (const ManifestEntry& entry : ActionServer::parseManifest(QString::fromUtf8(body))) {
        if (!entry.md5.isEmpty()) {
            m_md5.insert(entry.name, entry.md5);
        }
    }
    downloadNext();
}

void ActionDownloader::downloadNext()
{
    if (m_cancelled || m_index >= m_names.size()) {
        finish();
        return;
    }
    const QString name = m_names.at(m_index);
    const QUrl url = ActionServer::actionUrl(m_base, name, nowSeconds());
    // The installer closes the window after unpacking; each download shows it again.
    showProgress();
    m_reply = m_server.fetch(url, [this, name, url](const QByteArray& body, const QString& error) {
        m_reply = nullptr;
        downloaded(name, url, body, error);
    });
}

void ActionDownloader::downloaded(const QString& name, const QUrl& url, const QByteArray& body,
                                  const QString& error)
{
    if (m_cancelled) {
        finish();
        return;
    }
    if (!error.isEmpty()) {
        downloadFailed(name, url, error);
        ++m_index;
        downloadNext();
        return;
    }
    const QString expected = m_md5.value(name);
    const QString actual =
        QString::fromLatin1(QCryptographicHash::hash(body, QCryptographicHash::Md5).toHex());
    QString failure;
    if (!expected.isEmpty() && expected != actual) {
        failure = QStringLiteral("The archive of %1 does not match the action server's manifest: "
                                 "its md5 is %2, the manifest gives %3. Nothing was installed.")
                      .arg(name, actual, expected);
    } else if (m_installer.isAlreadyInstallingAction()) {
        failure = QStringLiteral("Another action is already being installed.");
    }
    QString archive;
    if (failure.isEmpty()) {
        m_temporaryDirectory = SupportPaths::uniqueTemporaryDirectory();
        // A "/" in a name must not make a folder of the file name.
        archive = QDir(m_temporaryDirectory)
                      .filePath(QString(name).replace(u'/', u'_') + QStringLiteral(".skbundle"));
        QSaveFile file(archive);
        if (!file.open(QIODevice::WriteOnly) || file.write(body) != body.size() || !file.commit()) {
            failure = QStringLiteral("The download could not be saved at %1: %2")
                          .arg(archive, file.errorString());
        }
    }
    if (!failure.isEmpty()) {
        downloadFailed(name, url, failure);
        if (!m_temporaryDirectory.isEmpty()) {
            FileOperations::removeRecursively(m_temporaryDirectory);
            m_temporaryDirectory.clear();
        }
        ++m_index;
        downloadNext();
        return;
    }
    m_installing = true;
    m_installer.addActionBundleOrScriptWithPath(
        archive, !m_updating, {}, {}, m_headless,
        [this](const InstallResult& result) { installed(result); });
}

void ActionDownloader::installed(const InstallResult& result)
{
    m_installing = false;
    QString reason;
    if (!FileOperations::removeRecursively(m_temporaryDirectory, &reason)) {
        Log::error(QStringLiteral("Error removing the downloaded archive's folder %1: %2")
                       .arg(m_temporaryDirectory, reason));
    }
    m_temporaryDirectory.clear();
    m_result.messages << result.message;
    if (result.ok) {
        m_result.installed << m_names.at(m_index);
    }
    if (result.cancelled) {
        m_cancelled = true;
    }
    ++m_index;
    downloadNext();
}

void ActionDownloader::downloadFailed(const QString& name, const QUrl& url, const QString& error)
{
    Log::error(QStringLiteral("Error downloading action with URL %1\n%2")
                   .arg(url.isValid() ? url.toString() : name, error));
    m_result.messages << QStringLiteral("%1 could not be downloaded: %2").arg(name, error);
    if (!m_headless) {
        m_alerts.runAlert({Alert::Style::Critical,
                           QStringLiteral("%1 could not be downloaded").arg(name),
                           error + QStringLiteral("\n\n") + SupportLine,
                           {},
                           this});
    }
}

void ActionDownloader::finish()
{
    m_busy = false;
    if (!m_headless) {
        m_windows.closeProgressWindow();
    }
    m_result.cancelled = m_cancelled;
    m_result.ok = !m_cancelled && m_result.installed.size() == m_names.size();
    const qsizetype updated = m_result.installed.size();
    if (m_updating && !m_cancelled && updated > 0) {
        if (updated == 1) {
            m_result.title = QStringLiteral("Update Installed Successfully");
            m_result.message = QStringLiteral("%1 update was installed successfully.")
                                   .arg(m_result.installed.constFirst());
        } else {
            m_result.title = QStringLiteral("Updates Installed Successfully");
            m_result.message = QString::asprintf("%ld action updates were installed successfully.",
                                                 static_cast<long>(updated));
        }
        if (m_headless) {
            Log::info(m_result.message);
        } else {
            m_alerts.runAlert(
                {Alert::Style::Informational, m_result.title, m_result.message, {}, this});
        }
    }
    const DownloadResult result = m_result;
    DownloadCompletion completion = std::move(m_completion);
    m_completion = {};
    if (completion) {
        completion(result);
    }
}

void ActionDownloader::cancel()
{
    if (!m_busy) {
        return;
    }
    m_cancelled = true;
    if (m_reply) {
        m_reply->abort();
    } else if (m_installing) {
        m_installer.cancel();
    }
}
