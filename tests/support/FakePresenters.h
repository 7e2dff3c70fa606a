#pragma once

#include "core/AlertHelper.h"
#include "core/DesktopServices.h"
#include "core/SecretStore.h"
#include "core/WindowPresenter.h"

#include <QList>
#include <QStringList>

#include <deque>
#include <memory>

// Records alerts instead of showing them and gives queued answers (default: button 0).
// While `holdAnswers` is set, alerts wait in `pendingAnswers` until the test answers.
class FakeAlertPresenter : public AlertPresenter {
public:
    void present(const Alert& alert, Answered answered) override;
    void setNextAnswer(int buttonIndex) { m_answers.push_back(buttonIndex); }

    QList<Alert> alerts;
    bool holdAnswers = false;
    QList<Answered> pendingAnswers;

private:
    std::deque<int> m_answers;
};

class FakeWindowPresenter : public WindowPresenter {
public:
    void openSettingsPage(const QString& page) override { settingsPages << page; }
    void showEditWindowForAction(ActionId actionId) override { editedActions << actionId; }
    void showDebugConsole() override { ++debugConsoleShown; }
    // Answers with the next queued folder ("" cancels); without one it never answers.
    void chooseFolder(const QString& title, const QString& prompt, const QString& startFolder,
                      std::function<void(const QString&)> chosen) override;
    void setNextFolder(const QString& folder) { m_folders.push_back(folder); }

    void closeGrid() override { ++gridClosed; }
    void showAddActionMenu() override { ++addActionMenuShown; }
    bool isDropBarSecondaryVisible() const override { return dropBarSecondaryVisible; }
    void showDropBarSecondaryPinned() override { ++dropBarSecondaryShown; }
    void closeDropBarSecondary() override { dropBarSecondaryVisible = false; }
    void revealDropbar(qint64 tileId) override { revealedDropbars << tileId; }
    void showQuickLook(const QStringList& paths) override { quickLooks << paths; }
    void showActionConfigSheet(ActionId actionId) override { configSheets << actionId; }
    // Answers with the next queued answer; without one the prompt waits in
    // pendingRenamePrompts until the test answers it.
    void promptForRenamedFilename(const RenamePrompt& prompt,
                                  std::function<void(const RenameAnswer&)> answered) override;
    void setNextRename(const QString& name)
    {
        m_renames.push_back({RenameAnswer::Kind::Renamed, name});
    }
    void setNextRenameCancelled() { m_renames.push_back({RenameAnswer::Kind::Cancelled, {}}); }
    void setNextRenameUnavailable() { m_renames.push_back({RenameAnswer::Kind::Unavailable, {}}); }
    // Records each message; the last `cancelled` is kept for the test to call.
    void showProgressWindow(const QString& message, std::function<void()> cancelled) override
    {
        progressMessages << message;
        progressCancel = std::move(cancelled);
        progressVisible = true;
    }
    void closeProgressWindow() override { progressVisible = false; }
    void openGridWithPasteboard(const QStringList& files, const QStringList& texts) override
    {
        sharedDrops << (files.isEmpty() ? texts : files);
    }
    QList<QStringList> sharedDrops;
    QStringList progressMessages;
    std::function<void()> progressCancel;
    bool progressVisible = false;

    struct FolderRequest {
        QString title;
        QString prompt;
        QString startFolder;
        std::function<void(const QString&)> chosen;
    };

    QStringList settingsPages;
    QList<ActionId> editedActions;
    int debugConsoleShown = 0;
    QList<FolderRequest> folderRequests;
    int gridClosed = 0;
    int addActionMenuShown = 0;
    bool dropBarSecondaryVisible = false;
    int dropBarSecondaryShown = 0;
    QList<qint64> revealedDropbars;
    QList<QStringList> quickLooks;
    QList<ActionId> configSheets;
    QList<RenamePrompt> renamePrompts;
    QList<std::function<void(const RenameAnswer&)>> pendingRenamePrompts;

private:
    std::deque<QString> m_folders;
    std::deque<RenameAnswer> m_renames;
};

// Records what the engine asks of the desktop.
class FakeDesktopServices : public DesktopServices {
public:
    void pasteUrl(const QString& url) override { clipboard << QStringLiteral("url:") + url; }
    void pasteString(const QString& text) override { clipboard << QStringLiteral("text:") + text; }
    void pasteFiles(const QStringList& paths) override
    {
        clipboard << QStringLiteral("files:") + paths.join(u',');
    }
    bool insertTextIntoFrontmostApp(const QString& text, QString*) override
    {
        insertedTexts << text;
        return true;
    }
    void playSound(const QString& name) override { sounds << name; }
    void sendNotification(const UserNotification& notification) override
    {
        notifications << notification;
    }

    QStringList clipboard;
    QStringList sounds;
    QStringList insertedTexts;
    QList<UserNotification> notifications;
};

// A private secret file until a test swaps in another store.
class SwappableSecretStore : public SecretStore {
public:
    SwappableSecretStore();
    void use(std::shared_ptr<SecretStore> store) { m_store = std::move(store); }

    void readSecret(const QString& service, const QString& account, Done done) override
    {
        m_store->readSecret(service, account, std::move(done));
    }
    void writeSecret(const QString& service, const QString& account, const QByteArray& secret,
                     Done done) override
    {
        m_store->writeSecret(service, account, secret, std::move(done));
    }
    void deleteSecret(const QString& service, const QString& account, Done done) override
    {
        m_store->deleteSecret(service, account, std::move(done));
    }

private:
    std::shared_ptr<SecretStore> m_store;
};
