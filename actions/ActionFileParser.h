#pragma once

#include "actions/ActionFile.h"

#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

class AlertHelper;
class WindowPresenter;

// Scans the action folders into ActionFile records and keeps them cached.
// One shared instance serves the application; tests make their own over their own folders.
class ActionFileParser {
public:
    static ActionFileParser& shared();

    // Folders default to the shipped internal actions and the user's actions folder.
    ActionFileParser();
    ActionFileParser(QString internalActionsDirectory, QString userActionsDirectory);

    QString internalActionsDirectory() const { return m_internalDirectory; }
    QString userActionsDirectory() const { return m_userDirectory; }

    // All records: internal, then user actions, then sharing services and built-ins.
    ActionFileList actionFiles();
    void invalidateActionsCache();

    // Parses one bundle or single-file action; none for anything else or an unreadable file.
    std::optional<ActionFile> processPath(const QString& path) const;
    // Parses header text as if it were the script of the record.
    static void parseHeader(const QString& text, ActionFile& record);

    ActionFilePtr getActionWithType(const QString& name);
    ActionFilePtr getActionWithTaskPath(const QString& path);
    ActionFileList getUserActionFiles();
    // The record of that action name among `records`, if any.
    static ActionFilePtr actionNamed(const ActionFileList& records, const QString& name);
    // All records, those named moving to the front in the order given. A named sharing
    // service that isAlreadyAdded() reports as on the grid is dropped instead.
    ActionFileList
    getActionsWithPreferredOrder(const QStringList& names,
                                 const std::function<bool(const QString&)>& isAlreadyAdded = {});
    QString getUniqueNameForCopiedActionWithPrefix(const QString& prefix);
    void deleteActionFiles(const ActionFileList& records);

    // Where the duplicate alert goes and the settings page it opens; without them (a parser
    // of its own in a tool or test) the alert is only logged.
    void setPresenters(AlertHelper* alerts, WindowPresenter* windows)
    {
        m_alerts = alerts;
        m_windows = windows;
    }

    // The duplicate alert is off while an install replaces an action.
    bool skipDuplicatesCheck() const { return m_skipDuplicatesCheck; }
    void setSkipDuplicatesCheck(bool skip) { m_skipDuplicatesCheck = skip; }

    // Records that stand for the desktop's sharing services and for the built-in actions,
    // listed after the bundles; the catalogues above this layer provide them.
    void setSharingServiceProvider(std::function<ActionFileList()> provider);
    void setBuiltInActionProvider(std::function<ActionFileList()> provider);

private:
    void checkForDuplicates(const ActionFileList& records);
    void showDuplicatesAlert(const QString& title, const QString& message);
    void scanFolder(const QString& folder, ActionFileList& into) const;

    QString m_internalDirectory;
    QString m_userDirectory;
    std::optional<ActionFileList> m_cache;
    AlertHelper* m_alerts = nullptr;
    WindowPresenter* m_windows = nullptr;
    QStringList m_lastDuplicates;
    bool m_skipDuplicatesCheck = false;
    std::function<ActionFileList()> m_sharingServices;
    std::function<ActionFileList()> m_builtInActions;
};
