#pragma once

#include "core/AlertHelper.h"
#include "core/WindowPresenter.h"

#include <QList>
#include <QStringList>

#include <deque>
#include <memory>

// Records alerts instead of showing them and gives queued answers (default: button 0).
class FakeAlertPresenter : public AlertPresenter {
public:
    int present(const Alert& alert) override;
    void setNextAnswer(int buttonIndex) { m_answers.push_back(buttonIndex); }

    QList<Alert> alerts;

private:
    std::deque<int> m_answers;
};

class FakeWindowPresenter : public WindowPresenter {
public:
    void openSettingsPage(const QString& page) override { settingsPages << page; }
    void showEditWindowForAction(ActionId actionId) override { editedActions << actionId; }

    QStringList settingsPages;
    QList<ActionId> editedActions;
};

// Installs both fakes for the lifetime of a test and restores the headless ones afterwards.
class FakePresenters {
public:
    FakePresenters();
    ~FakePresenters();
    FakePresenters(const FakePresenters&) = delete;
    FakePresenters& operator=(const FakePresenters&) = delete;

    FakeAlertPresenter& alerts() { return *m_alerts; }
    FakeWindowPresenter& windows() { return *m_windows; }

private:
    std::shared_ptr<FakeAlertPresenter> m_alerts = std::make_shared<FakeAlertPresenter>();
    std::shared_ptr<FakeWindowPresenter> m_windows = std::make_shared<FakeWindowPresenter>();
};
