#include "core/AlertHelper.h"

#include "core/Log.h"

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

AlertHelper::AlertHelper(std::shared_ptr<AlertPresenter> presenter)
    : m_presenter(presenter ? std::move(presenter) : std::make_shared<HeadlessAlertPresenter>())
{}

int AlertHelper::addObserver(std::function<void(const Alert&)> observer)
{
    m_observers.emplace(m_nextToken, std::move(observer));
    return m_nextToken++;
}

void AlertHelper::removeObserver(int token)
{
    m_observers.erase(token);
}

void AlertHelper::showCriticalAlertWithTitle(const QString& title, const QString& message,
                                             const QObject* origin)
{
    runAlert({Alert::Style::Critical, title, message, {}, origin});
}

void AlertHelper::showAlertWithTitle(const QString& title, const QString& message,
                                     const QObject* origin)
{
    runAlert({Alert::Style::Informational, title, message, {}, origin});
}

void AlertHelper::runAlert(const Alert& alert, AlertPresenter::Answered answered)
{
    // A copy: an observer may remove itself.
    const auto listening = m_observers;
    for (const auto& [token, observer] : listening) {
        observer(alert);
    }
    // Keeps the presenter alive until it has answered.
    std::shared_ptr<AlertPresenter> presenter = m_presenter;
    presenter->present(alert, [presenter, answered = std::move(answered)](int button) {
        if (answered) {
            answered(button);
        }
    });
}
