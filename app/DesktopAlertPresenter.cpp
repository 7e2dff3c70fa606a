#include "app/DesktopAlertPresenter.h"

#include <QApplication>
#include <QMessageBox>
#include <QPushButton>

void DesktopAlertPresenter::present(const Alert& alert, Answered answered)
{
    auto* box = new QMessageBox;
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setIcon(alert.style == Alert::Style::Critical  ? QMessageBox::Critical
                 : alert.style == Alert::Style::Warning ? QMessageBox::Warning
                                                        : QMessageBox::Information);
    box->setWindowTitle(QStringLiteral("Skelvo"));
    box->setText(alert.title);
    box->setInformativeText(alert.message);
    const QStringList buttons =
        alert.buttons.isEmpty() ? QStringList{QStringLiteral("OK")} : alert.buttons;
    QList<QAbstractButton*> created;
    for (const QString& title : buttons) {
        created << box->addButton(title, created.isEmpty() ? QMessageBox::AcceptRole
                                                           : QMessageBox::RejectRole);
    }
    box->setDefaultButton(qobject_cast<QPushButton*>(created.first()));
    box->setWindowFlag(Qt::WindowStaysOnTopHint);
    box->setWindowModality(Qt::NonModal);
    QObject::connect(box, &QMessageBox::finished, box,
                     [box, created, answered = std::move(answered)](int) {
                         const auto index = created.indexOf(box->clickedButton());
                         if (answered) {
                             answered(index < 0 ? 0 : static_cast<int>(index));
                         }
                     });
    box->show();
    box->raise();
    box->activateWindow();
}
