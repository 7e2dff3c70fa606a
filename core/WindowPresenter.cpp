#include "core/WindowPresenter.h"

#include "core/Log.h"

void HeadlessWindowPresenter::openSettingsPage(const QString& page)
{
    Log::info(QStringLiteral("Settings page \"%1\" would open (no display)").arg(page));
}

void HeadlessWindowPresenter::showEditWindowForAction(ActionId actionId)
{
    Log::info(QStringLiteral("Edit window of action %1 would open (no display)").arg(actionId));
}

void HeadlessWindowPresenter::showDebugConsole()
{
    Log::info(QStringLiteral("Debug console would open (no display); see Logs/debug-console.log"));
}

void HeadlessWindowPresenter::chooseFolder(const QString& title, const QString& prompt,
                                           const QString& startFolder,
                                           std::function<void(const QString&)> chosen)
{
    Q_UNUSED(startFolder);
    Log::warning(QStringLiteral("%1: \"%2\" cannot be answered without a display; cancelled")
                     .arg(title, prompt));
    if (chosen) {
        chosen(QString());
    }
}

void HeadlessWindowPresenter::closeGrid()
{
    // Without a display no grid is ever open.
}

void HeadlessWindowPresenter::showAddActionMenu()
{
    Log::info(QStringLiteral("The add-action menu would open (no display)"));
}

bool HeadlessWindowPresenter::isDropBarSecondaryVisible() const
{
    return false;
}

void HeadlessWindowPresenter::showDropBarSecondaryPinned()
{
    Log::info(QStringLiteral("The Drop Bar grid would open pinned (no display)"));
}

void HeadlessWindowPresenter::closeDropBarSecondary() {}

void HeadlessWindowPresenter::revealDropbar(qint64 tileId)
{
    Log::info(
        QStringLiteral("The stack of Drop Bar tile %1 would be shown (no display)").arg(tileId));
}

void HeadlessWindowPresenter::showQuickLook(const QStringList& paths)
{
    Log::info(QStringLiteral("%1 item(s) would be previewed (no display)").arg(paths.size()));
}

void HeadlessWindowPresenter::showActionConfigSheet(ActionId actionId)
{
    Log::info(QStringLiteral("Settings of action %1 would open (no display)").arg(actionId));
}

void HeadlessWindowPresenter::promptForRenamedFilename(
    const RenamePrompt& prompt, std::function<void(const RenameAnswer&)> answered)
{
    Log::warning(QStringLiteral("%1: the new name of \"%2\" cannot be asked without a display; "
                                "cancelled")
                     .arg(prompt.title, prompt.itemPath));
    if (answered) {
        answered({RenameAnswer::Kind::Unavailable, QString()});
    }
}

void HeadlessWindowPresenter::showProgressWindow(const QString& message, std::function<void()>)
{
    Log::info(message);
}

void HeadlessWindowPresenter::closeProgressWindow() {}

void HeadlessWindowPresenter::openGridWithPasteboard(const QStringList& files,
                                                     const QStringList& texts)
{
    Log::warning(QStringLiteral("The grid cannot open without a display; %1 shared item(s) "
                                "dropped")
                     .arg(files.isEmpty() ? texts.size() : files.size()));
}
