#include "core/WindowPresenter.h"

#include "core/Log.h"

namespace {

std::shared_ptr<WindowPresenter>& current()
{
    static std::shared_ptr<WindowPresenter> presenter = std::make_shared<HeadlessWindowPresenter>();
    return presenter;
}

} // namespace

WindowPresenter& WindowPresenter::shared()
{
    return *current();
}

void WindowPresenter::setShared(std::shared_ptr<WindowPresenter> presenter)
{
    current() = presenter ? std::move(presenter) : std::make_shared<HeadlessWindowPresenter>();
}

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
