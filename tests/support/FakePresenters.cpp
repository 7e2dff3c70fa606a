#include "tests/support/FakePresenters.h"

#include "platform/FileSecretStore.h"

void FakeAlertPresenter::present(const Alert& alert, Answered answered)
{
    alerts << alert;
    if (holdAnswers) {
        pendingAnswers << std::move(answered);
        return;
    }
    int answer = 0;
    if (!m_answers.empty()) {
        answer = m_answers.front();
        m_answers.pop_front();
    }
    answered(answer);
}

SwappableSecretStore::SwappableSecretStore()
    : m_store(std::make_shared<FileSecretStore>())
{}

void FakeWindowPresenter::chooseFolder(const QString& title, const QString& prompt,
                                       const QString& startFolder,
                                       std::function<void(const QString&)> chosen)
{
    folderRequests << FolderRequest{title, prompt, startFolder, chosen};
    if (!m_folders.empty()) {
        const QString folder = m_folders.front();
        m_folders.pop_front();
        chosen(folder);
    }
}

void FakeWindowPresenter::promptForRenamedFilename(
    const RenamePrompt& prompt, std::function<void(const RenameAnswer&)> answered)
{
    renamePrompts << prompt;
    if (m_renames.empty()) {
        pendingRenamePrompts << std::move(answered);
        return;
    }
    const RenameAnswer answer = m_renames.front();
    m_renames.pop_front();
    answered(answer);
}
