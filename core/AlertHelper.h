#pragma once

#include <QString>
#include <QStringList>

#include <memory>

struct Alert {
    enum class Style { Informational, Warning, Critical };
    Style style = Style::Informational;
    QString title;
    QString message;
    QStringList buttons; // first is the default; empty means a single "OK"
};

// Shows alerts to the user. The desktop presents a dialog (bringing the application to
// the front first); headless runs log them; tests record them and give the answers.
class AlertPresenter {
public:
    virtual ~AlertPresenter() = default;
    // Returns the index of the button the user chose.
    virtual int present(const Alert& alert) = 0;
};

// Writes each alert as a log line and answers with the default button.
class HeadlessAlertPresenter : public AlertPresenter {
public:
    int present(const Alert& alert) override;
};

namespace AlertHelper {

// The presenter in use; headless until the application installs another.
AlertPresenter& presenter();
void setPresenter(std::shared_ptr<AlertPresenter> presenter);

int showCriticalAlertWithTitle(const QString& title, const QString& message);
int showAlertWithTitle(const QString& title, const QString& message);
int runAlert(const Alert& alert);

} // namespace AlertHelper
