#pragma once

#include <QString>
#include <QStringList>

#include <functional>
#include <map>
#include <memory>

class QObject;

struct Alert {
    enum class Style { Informational, Warning, Critical };
    Style style = Style::Informational;
    QString title;
    QString message;
    QStringList buttons; // first is the default; empty means a single "OK"
    // What raised it (a task, a built-in action), so that the command-line request that
    // waits on that run hears of it; none for alerts of the application itself.
    const QObject* origin = nullptr;
};

// Shows alerts to the user. The desktop presents a dialog (bringing the application to
// the front first); headless runs log them; tests record them and give the answers.
// Nothing waits for the user: the answer arrives later through a callback.
class AlertPresenter {
public:
    // Called once with the index of the button the user chose.
    using Answered = std::function<void(int button)>;

    virtual ~AlertPresenter() = default;
    virtual void present(const Alert& alert, Answered answered) = 0;
};

// Writes each alert as a log line and answers with the default button at once.
class HeadlessAlertPresenter : public AlertPresenter {
public:
    void present(const Alert& alert, Answered answered) override;
};

// Presents alerts through the presenter it was given (headless when none) and lets
// observers hear of each one first (the command-line handler sends them to waiting requests).
class AlertHelper {
public:
    explicit AlertHelper(std::shared_ptr<AlertPresenter> presenter = nullptr);

    AlertPresenter& presenter() { return *m_presenter; }

    // The token removes the observer again.
    int addObserver(std::function<void(const Alert&)> observer);
    void removeObserver(int token);

    void showCriticalAlertWithTitle(const QString& title, const QString& message,
                                    const QObject* origin = nullptr);
    void showAlertWithTitle(const QString& title, const QString& message,
                            const QObject* origin = nullptr);
    // `answered` may be empty when the answer does not matter.
    void runAlert(const Alert& alert, AlertPresenter::Answered answered = {});

private:
    std::shared_ptr<AlertPresenter> m_presenter;
    std::map<int, std::function<void(const Alert&)>> m_observers;
    int m_nextToken = 1;
};
