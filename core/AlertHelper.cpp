#include "core/AlertHelper.h"

#include "core/Log.h"

namespace {

std::shared_ptr<AlertPresenter>& current()
{
    static std::shared_ptr<AlertPresenter> presenter = std::make_shared<HeadlessAlertPresenter>();
    return presenter;
}

} // namespace

int HeadlessAlertPresenter::present(const Alert& alert)
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
    return 0;
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

int showCriticalAlertWithTitle(const QString& title, const QString& message)
{
    return runAlert({Alert::Style::Critical, title, message, {}});
}

int showAlertWithTitle(const QString& title, const QString& message)
{
    return runAlert({Alert::Style::Informational, title, message, {}});
}

int runAlert(const Alert& alert)
{
    return current()->present(alert);
}

} // namespace AlertHelper
