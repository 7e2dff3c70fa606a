#include "cmdline/CmdLineRequest.h"

CmdLineRequest::CmdLineRequest(Respond respond, std::function<void()> finish)
    : m_respond(std::move(respond))
    , m_finish(std::move(finish))
{}

void CmdLineRequest::respond(const QString& text)
{
    if (m_finished) {
        return;
    }
    m_failed = m_failed || text.startsWith(QStringLiteral("Error: "));
    if (m_respond) {
        m_respond(text, false);
    }
}

void CmdLineRequest::fail(const QString& text)
{
    if (m_finished) {
        return;
    }
    m_failed = true;
    if (m_respond) {
        m_respond(text, true);
    }
}

void CmdLineRequest::finish()
{
    if (m_finished) {
        return;
    }
    m_finished = true;
    if (m_finish) {
        m_finish();
    }
}
