#include "actions/ActionUpdatesController.h"

#include "actions/ActionDownloader.h"
#include "actions/ActionFileParser.h"
#include "core/AlertHelper.h"
#include "core/WindowPresenter.h"

#include <QRegularExpression>

namespace {

const QString FailedTitle = QStringLiteral("Failed to check for action updates.");

// The version read as a number, as far as it reads as one ("1.2.3" is 1.2).
double versionNumber(const QString& version)
{
    static const QRegularExpression number(QStringLiteral("^\\s*[0-9]*(\\.[0-9]+)?"));
    return number.match(version).captured(0).trimmed().toDouble();
}

bool hasUpdate(const ManifestEntry& entry, const ActionFile& installed)
{
    return installed.uniqueID == entry.uniqueId &&
           ActionUpdatesController::isNewerVersion(entry.version, installed.version);
}

} // namespace

ActionUpdatesController::ActionUpdatesController(ActionServer& server, ActionFileParser& parser,
                                                 ActionDownloader& downloader, AlertHelper& alerts,
                                                 WindowPresenter& windows, QObject* parent)
    : QObject(parent)
    , m_server(server)
    , m_parser(parser)
    , m_downloader(downloader)
    , m_alerts(alerts)
    , m_windows(windows)
{}

ActionUpdatesController::~ActionUpdatesController() = default;

bool ActionUpdatesController::isNewerVersion(const QString& candidate, const QString& installed)
{
    // The installed version plays the application's part: older than the candidate as a
    // minimum means the candidate is newer.
    return ActionFile::compareVersion(candidate, installed) < 0;
}

void ActionUpdatesController::checkForActionUpdates(
    const QString& onlyName, bool headless,
    std::function<void(const UpdateCheckResult&)> completion)
{
    if (m_checking) {
        UpdateCheckResult refused;
        refused.error = QStringLiteral("An action update check is already in progress.");
        if (completion) {
            completion(refused);
        }
        return;
    }
    m_checking = true;
    if (!headless) {
        m_windows.showProgressWindow(QStringLiteral("Checking for action updates..."), {});
    }
    m_server.fetchManifest([this, onlyName, headless, completion = std::move(completion)](
                               const QList<ManifestEntry>& manifest, const QString& error) {
        m_checking = false;
        if (!headless) {
            m_windows.closeProgressWindow();
        }
        UpdateCheckResult result;
        if (!error.isEmpty()) {
            result.error = FailedTitle + u' ' + error;
            result.title = FailedTitle;
            result.message = error;
            if (!headless) {
                m_alerts.runAlert({Alert::Style::Critical, FailedTitle, error, {}, this});
            }
            if (completion) {
                completion(result);
            }
            return;
        }
        result.ok = true;
        const ActionFileList installed = m_parser.getUserActionFiles();
        for (const ManifestEntry& entry : manifest) {
            if (!onlyName.isEmpty() && entry.name != onlyName) {
                continue;
            }
            const ActionFilePtr record = ActionFileParser::actionNamed(installed, entry.name);
            if (record && hasUpdate(entry, *record)) {
                result.updates.append(
                    {entry, AddonAction::State::UpdateAvailable, record->version});
            }
        }

        QStringList buttons;
        if (result.updates.isEmpty()) {
            result.title = QStringLiteral("No Updates Available");
            result.message = QStringLiteral("There are no action updates available at this time.");
        } else if (!onlyName.isEmpty()) {
            const AddonAction& update = result.updates.constFirst();
            result.title = QStringLiteral("Action Update Available");
            result.message =
                QStringLiteral("%1 version %2 is available.\nYou have version %3.")
                    .arg(update.entry.name, update.entry.version, update.installedVersion);
            buttons = {QStringLiteral("Install Update"), QStringLiteral("Cancel")};
        } else {
            QString list;
            for (const AddonAction& update : std::as_const(result.updates)) {
                list += QString::asprintf("- %s (%.1f)\n", qUtf8Printable(update.entry.name),
                                          versionNumber(update.entry.version));
            }
            if (result.updates.size() == 1) {
                result.title = QStringLiteral("1 Update Available");
                result.message =
                    QStringLiteral("The following action has an update available:\n\n") + list;
                buttons = {QStringLiteral("Install Update"), QStringLiteral("Cancel")};
            } else {
                result.title = QString::asprintf("%lu Updates Available",
                                                 static_cast<unsigned long>(result.updates.size()));
                result.message =
                    QStringLiteral("The following actions have updates available:\n\n") + list;
                buttons = {QStringLiteral("Install Updates"), QStringLiteral("Cancel")};
            }
        }
        if (!headless) {
            QStringList names;
            for (const AddonAction& update : std::as_const(result.updates)) {
                names << update.entry.name;
            }
            m_alerts.runAlert(
                {Alert::Style::Informational, result.title, result.message, buttons, this},
                [this, names](int button) {
                    if (button == 0 && !names.isEmpty()) {
                        m_downloader.updateActions(names);
                    }
                });
        }
        if (completion) {
            completion(result);
        }
    });
}

void ActionUpdatesController::listAddonActions(
    std::function<void(const QList<AddonAction>&, const QString& error)> completion)
{
    m_server.fetchManifest([this, completion = std::move(completion)](
                               const QList<ManifestEntry>& manifest, const QString& error) {
        if (!error.isEmpty()) {
            completion({}, error);
            return;
        }
        const ActionFileList installed = m_parser.getUserActionFiles();
        QList<AddonAction> actions;
        for (const ManifestEntry& entry : manifest) {
            AddonAction action{entry, AddonAction::State::NotInstalled, {}};
            if (const ActionFilePtr record = ActionFileParser::actionNamed(installed, entry.name)) {
                action.installedVersion = record->version;
                action.state = hasUpdate(entry, *record) ? AddonAction::State::UpdateAvailable
                                                         : AddonAction::State::UpToDate;
            }
            actions << action;
        }
        completion(actions, {});
    });
}
