#pragma once

#include <QString>

#include <functional>
#include <memory>

// One command-line request: where its answers go and whether it is over.
// The command serving it answers through it. The request is finished when its dispatch
// returns unless the command keeps it open (a run until its task ends, a command waiting
// for a secret or an alert); whoever then holds it finishes it, exactly once.
class CmdLineRequest {
public:
    using Respond = std::function<void(const QString& response, bool failed)>;

    CmdLineRequest(Respond respond, std::function<void()> finish);

    // Ignored once the request is finished.
    void respond(const QString& text);
    // An answer that tells of a failure without beginning "Error: " (a quoted text that must
    // stay as it is); the caller still exits with a failure.
    void fail(const QString& text);
    void finish();
    void stayOpen() { m_staysOpen = true; }

    bool staysOpen() const { return m_staysOpen; }
    bool isFinished() const { return m_finished; }
    // Whether an answer began "Error: ".
    bool hasFailed() const { return m_failed; }

private:
    Respond m_respond;
    std::function<void()> m_finish;
    bool m_staysOpen = false;
    bool m_finished = false;
    bool m_failed = false;
};

using CmdLineRequestPtr = std::shared_ptr<CmdLineRequest>;
