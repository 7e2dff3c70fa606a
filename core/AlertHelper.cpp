#include "core/AlertHelper.h"

#include "core/Log.h"

#include <map>

namespace {

std::shared_ptr<AlertPresenter>& current()
{
    static std::shared_ptr<AlertPresenter> presenter = std::make_shared<HeadlessAlertPresenter>();
    return presenter;
}

std::map<int, std::function<void(const Alert&)>>& observers()
{
    static std::map<int, std::function<void(const Alert&)>> registered;
    return registered;
}

} // namespace

void HeadlessAlertPresenter::present(const Alert& alert, Answered answered)
{
    const char* kind = alert.style == Alert::Style::Critical  ? "critical alert"
                       : alert.style == Alert::Style::Warning ? "warning alert"
                                                              : "alert";
    QString line =
        QStringLiteral("%1: %2 -- %3").arg(QString::fromLatin1(kind), alert.title, alert.message);
    if (!alert.buttons.isEmpty()) {
        line += QStringLiteral(" [answered: %1]").arg(alert.buttons.first());
    }
    Log::warning(line);
    if (answered) {
        answered(0);
    }
}

namespace AlertHelper {

AlertPresenter& presenter()
{
    return *current();
}

void setPresenter(std::shared_ptr<AlertPresenter> presenter)
{
    current() = presenter ? std::move(presenter) : std::make_shared<HeadlessAlertPresenter>();
}

int addObserver(std::function<void(const Alert&)> observer)
{
    static int nextToken = 1;
    observers().emplace(nextToken, std::move(observer));
    return nextToken++;
}

void removeObserver(int token)
{
    observers().erase(token);
}

void showCriticalAlertWithTitle(const QString& title, const QString& message, const QObject* origin)
{
    runAlert({Alert::Style::Critical, title, message, {}, origin});
}

void showAlertWithTitle(const QString& title, const QString& message, const QObject* origin)
{
    runAlert({Alert::Style::Informational, title, message, {}, origin});
}

void runAlert(const Alert& alert, AlertPresenter::Answered answered)
{
    // A copy: an observer may remove itself.
    const auto listening = observers();
    for (const auto& [token, observer] : listening) {
        observer(alert);
    }
    // Keeps the presenter alive until it has answered, even if another is installed.
    std::shared_ptr<AlertPresenter> presenter = current();
    presenter->present(alert, [presenter, answered = std::move(answered)](int button) {
        if (answered) {
            answered(button);
        }
    });
}

} // namespace AlertHelper
