// The add-on action commands: list-addon-actions, install-action, uninstall-action and
// update-actions. They wait for the action server and the installer, which answer later, so
// each keeps its request open and finishes it from the completion. Nothing here shows a
// window: the texts the windows would show are the answers.
#include "actions/ActionDownloader.h"
#include "actions/ActionFileParser.h"
#include "actions/ActionFilesController.h"
#include "actions/ActionServer.h"
#include "actions/ActionUpdatesController.h"
#include "cmdline/CmdLineTaskHandler.h"
#include "cmdline/CommandSupport.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>

using namespace CommandSupport;

namespace {

QString stateWord(AddonAction::State state)
{
    switch (state) {
    case AddonAction::State::NotInstalled:
        return QStringLiteral("not installed");
    case AddonAction::State::UpToDate:
        return QStringLiteral("installed");
    case AddonAction::State::UpdateAvailable:
        return QStringLiteral("update available");
    }
    return {};
}

QJsonObject addonJson(const AddonAction& addon)
{
    QJsonObject object{
        {QStringLiteral("name"), addon.entry.name},
        {QStringLiteral("version"), addon.entry.version},
        {QStringLiteral("description"), addon.entry.description},
        {QStringLiteral("uniqueId"), addon.entry.uniqueId},
        {QStringLiteral("installed"), addon.state != AddonAction::State::NotInstalled},
        {QStringLiteral("updateAvailable"), addon.state == AddonAction::State::UpdateAvailable},
    };
    if (!addon.installedVersion.isEmpty()) {
        object.insert(QStringLiteral("installedVersion"), addon.installedVersion);
    }
    return object;
}

QString addonLine(const AddonAction& addon)
{
    QString state = stateWord(addon.state);
    if (addon.state == AddonAction::State::UpdateAvailable) {
        state += QStringLiteral(", you have ") + addon.installedVersion;
    }
    QString line = QStringLiteral("- %1 %2 (%3)").arg(addon.entry.name, addon.entry.version, state);
    if (!addon.entry.description.isEmpty()) {
        line += QStringLiteral(": ") + addon.entry.description;
    }
    return line + u'\n';
}

// The user's own copy of the action of that name, if one is installed.
ActionFilePtr userActionNamed(const QString& name)
{
    return ActionFileParser::actionNamed(ActionFileParser::shared().getUserActionFiles(), name);
}

// A NAME that names a file to install rather than an action on the server.
bool isLocalActionFile(const QString& name, const QString& path)
{
    static const QStringList extensions{QStringLiteral("skbundle"), QStringLiteral("skelvo"),
                                        QStringLiteral("zip")};
    const QFileInfo info(path);
    return (name.contains(u'/') || extensions.contains(info.suffix().toLower())) && info.exists();
}

// Answers the outcome of downloads: each failure as an error.
void respondDownloads(const CmdLineRequestPtr& client, const DownloadResult& result)
{
    for (const QString& message : result.messages) {
        if (result.ok) {
            client->respond(message);
        } else {
            client->respond(QStringLiteral("Error: ") + message);
        }
    }
    if (result.cancelled && result.messages.isEmpty()) {
        client->respond(QStringLiteral("Error: The download was cancelled."));
    }
}

} // namespace

bool CmdLineTaskHandler::libraryFor(const CmdLineRequestPtr& client, bool needsServer)
{
    if (!m_library.server || !m_library.installer || !m_library.downloader || !m_library.updates) {
        client->respond(QStringLiteral("Error: The action library is not available."));
        return false;
    }
    if (needsServer && !m_library.server->baseUrl().isValid()) {
        client->respond(QStringLiteral("Error: ") + ActionServer::notConfiguredMessage());
        return false;
    }
    return true;
}

void CmdLineTaskHandler::listAddonActions(const CmdLineRequestPtr& client,
                                          const QVariantMap& request)
{
    if (!libraryFor(client, true)) {
        return;
    }
    const bool asJson = flag(request, "json");
    client->stayOpen();
    m_library.updates->listAddonActions(
        [client, asJson](const QList<AddonAction>& addons, const QString& error) {
            if (!error.isEmpty()) {
                client->respond(QStringLiteral("Error: ") + error);
            } else if (asJson) {
                QJsonArray array;
                for (const AddonAction& addon : addons) {
                    array.append(addonJson(addon));
                }
                client->respond(json(array));
            } else if (addons.isEmpty()) {
                client->respond(QStringLiteral("No add-on actions found"));
            } else {
                QString text = QStringLiteral("\nAvailable Add-on Actions:\n") + ListRule;
                for (const AddonAction& addon : addons) {
                    text += addonLine(addon);
                }
                client->respond(text);
            }
            client->finish();
        });
}

void CmdLineTaskHandler::installAction(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    if (!given(client, request, {"name"}, "action name")) {
        return;
    }
    const QString name = str(request, "name");
    const QString path = absolutePath(name, str(request, "cwd"));
    const bool local = isLocalActionFile(name, path);
    if (!libraryFor(client, !local)) {
        return;
    }
    if (local) {
        // A file given by the user replaces an installed action of its name, as opening it does.
        if (m_library.installer->isAlreadyInstallingAction()) {
            client->respond(QStringLiteral("Error: Another action is being installed."));
            return;
        }
        client->stayOpen();
        m_library.installer->addActionBundleOrScriptWithPath(
            path, true, {}, {}, true, [client](const InstallResult& result) {
                client->respond(result.ok ? result.message
                                          : QStringLiteral("Error: ") + result.message);
                client->finish();
            });
        return;
    }
    if (!flag(request, "force") && userActionNamed(name)) {
        client->respond(QStringLiteral("Error: Action '%1' is already installed. Use --force to "
                                       "install it again.")
                            .arg(name));
        return;
    }
    if (m_library.downloader->isBusy()) {
        client->fail(ActionDownloader::BusyMessage);
        return;
    }
    client->stayOpen();
    m_library.downloader->downloadActionHeadless(name, [client](const DownloadResult& result) {
        respondDownloads(client, result);
        client->finish();
    });
}

void CmdLineTaskHandler::uninstallAction(const CmdLineRequestPtr& client,
                                         const QVariantMap& request)
{
    if (!given(client, request, {"name"}, "action name") || !libraryFor(client, false)) {
        return;
    }
    const QString name = str(request, "name");
    const ActionFilePtr action = userActionNamed(name);
    if (!action) {
        client->respond(
            QStringLiteral("Error: Action '%1' is not an installed add-on action.").arg(name));
        return;
    }
    m_library.installer->deleteActionFiles({action});
    if (QFileInfo::exists(action->taskPath)) {
        client->respond(QStringLiteral("Error: Could not remove action '%1' at %2")
                            .arg(name, action->taskPath));
        return;
    }
    client->respond(QStringLiteral("Uninstalled action '%1'").arg(name));
}

void CmdLineTaskHandler::updateActions(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    if (!libraryFor(client, true)) {
        return;
    }
    if (m_library.downloader->isBusy()) {
        client->fail(ActionDownloader::BusyMessage);
        return;
    }
    const QStringList names = request.value(QStringLiteral("names")).toStringList();
    ActionDownloader* downloader = m_library.downloader;
    client->stayOpen();
    m_library.updates->checkForActionUpdates(
        names.size() == 1 ? names.first() : QString(), true,
        [client, names, downloader](const UpdateCheckResult& check) {
            if (!check.ok) {
                client->respond(QStringLiteral("Error: ") + check.error);
                client->finish();
                return;
            }
            QStringList wanted;
            for (const AddonAction& update : check.updates) {
                if (names.isEmpty() || names.contains(update.entry.name)) {
                    wanted << update.entry.name;
                }
            }
            if (wanted.isEmpty()) {
                client->respond(QStringLiteral("No Updates Available: There are no action updates "
                                               "available at this time."));
                client->finish();
                return;
            }
            if (names.size() > 1) {
                // The check's own text lists every update; only those asked for are installed.
                QString listing;
                for (const AddonAction& update : check.updates) {
                    if (wanted.contains(update.entry.name)) {
                        listing += QStringLiteral("- %1 (%2)\n")
                                       .arg(update.entry.name, update.entry.version);
                    }
                }
                client->respond(QStringLiteral("Updating:\n") + listing);
            } else {
                client->respond(check.title + QStringLiteral(": ") + check.message);
            }
            downloader->updateActions(wanted, true, [client](const DownloadResult& result) {
                respondDownloads(client, result);
                // The downloader's own closing text ("… update was installed successfully.").
                if (result.ok && !result.message.isEmpty()) {
                    client->respond(result.message);
                }
                client->finish();
            });
        });
}
