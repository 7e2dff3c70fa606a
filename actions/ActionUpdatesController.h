#pragma once

#include "actions/ActionServer.h"

#include <QList>
#include <QObject>
#include <QString>

#include <functional>

class ActionDownloader;
class ActionFileParser;
class AlertHelper;
class WindowPresenter;

// An action of the server's manifest, beside what is installed of it.
struct AddonAction {
    enum class State { NotInstalled, UpToDate, UpdateAvailable };
    ManifestEntry entry;
    State state = State::NotInstalled;
    QString installedVersion; // empty when not installed
};

struct UpdateCheckResult {
    bool ok = false;
    QString error;              // "Failed to check for action updates." and why
    QList<AddonAction> updates; // only those with an update, in manifest order
    QString title;              // the result alert's title ("No Updates Available", ...)
    QString message;            // and its text
};

// Compares the installed actions with the server's manifest: an update is available when the
// names and unique ids are equal and the manifest's version is newer (integer components).
class ActionUpdatesController : public QObject {
    Q_OBJECT
public:
    ActionUpdatesController(ActionServer& server, ActionFileParser& parser,
                            ActionDownloader& downloader, AlertHelper& alerts,
                            WindowPresenter& windows, QObject* parent = nullptr);
    ~ActionUpdatesController() override;

    // Shows the progress window and the result alert; accepting it installs the updates.
    // With `onlyName` only that action's line counts. With `headless` nothing is shown and
    // nothing installed: `completion` gets the result.
    void checkForActionUpdates(const QString& onlyName = {}, bool headless = false,
                               std::function<void(const UpdateCheckResult&)> completion = {});

    // Every manifest action with its installed state (for the add-on list).
    void listAddonActions(
        std::function<void(const QList<AddonAction>&, const QString& error)> completion);

    // Whether `candidate` is newer than `installed`, walking the installed version's
    // components as integers ("2.10" is newer than "2.9").
    static bool isNewerVersion(const QString& candidate, const QString& installed);

    bool isChecking() const { return m_checking; }

private:
    ActionServer& m_server;
    ActionFileParser& m_parser;
    ActionDownloader& m_downloader;
    AlertHelper& m_alerts;
    WindowPresenter& m_windows;
    bool m_checking = false;
};
