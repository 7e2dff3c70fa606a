#include "tests/support/FakePresenters.h"

int FakeAlertPresenter::present(const Alert& alert)
{
    alerts << alert;
    if (m_answers.empty()) {
        return 0;
    }
    const int answer = m_answers.front();
    m_answers.pop_front();
    return answer;
}

FakePresenters::FakePresenters()
{
    AlertHelper::setPresenter(m_alerts);
    WindowPresenter::setShared(m_windows);
}

FakePresenters::~FakePresenters()
{
    AlertHelper::setPresenter(nullptr);
    WindowPresenter::setShared(nullptr);
}
