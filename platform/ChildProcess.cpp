#include "platform/ChildProcess.h"

#include <QCoreApplication>
#include <QTimer>

#include <csignal>
#include <locale.h>
#include <unistd.h>

namespace {

// A killed child ends at once unless the kernel is stuck on its behalf (a dead NFS server).
constexpr int QuitWaitMs = 1000;

// Runs in the child between fork and exec.
void prepareChild()
{
    ::setpgid(0, 0);
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    sigemptyset(&action.sa_mask);
    for (int sig = 1; sig < NSIG; ++sig) {
        if (sig != SIGKILL && sig != SIGSTOP) {
            ::sigaction(sig, &action, nullptr);
        }
    }
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

bool localeInstalled(const char* name)
{
    const locale_t locale = ::newlocale(LC_ALL_MASK, name, static_cast<locale_t>(nullptr));
    if (locale == static_cast<locale_t>(nullptr)) {
        return false;
    }
    ::freelocale(locale);
    return true;
}

} // namespace

ChildProcess::ChildProcess(QObject* parent)
    : QObject(parent)
    , m_process(new QProcess(this))
{
    m_process->setChildProcessModifier(prepareChild);
}

ChildProcess::~ChildProcess()
{
    if (!isRunning()) {
        return;
    }
    kill();
    // Still not ended: QProcess would wait again in its destructor; the application reaps
    // it instead.
    if (QCoreApplication* app = QCoreApplication::instance()) {
        m_process->disconnect();
        m_process->setParent(app);
        connect(m_process, &QProcess::finished, m_process, &QObject::deleteLater);
    }
}

void ChildProcess::start()
{
    m_process->start();
    m_groupId = m_process->processId();
    if (m_groupId > 0) {
        // Also here, so that a cancel right after the start finds the group even when the
        // child has not run yet. Fails harmlessly once the child has called exec.
        ::setpgid(static_cast<pid_t>(m_groupId), static_cast<pid_t>(m_groupId));
    }
}

void ChildProcess::cancel()
{
    if (!isRunning()) {
        return;
    }
    signalGroup(SIGTERM);
    // Members that ignore the request are killed even when the leader has ended and this
    // object is gone.
    const auto group = static_cast<pid_t>(-m_groupId);
    QObject* context = QCoreApplication::instance();
    if (!context) {
        context = this;
    }
    QTimer::singleShot(CancelGracePeriodMs, context, [group] { ::kill(group, SIGKILL); });
}

void ChildProcess::kill()
{
    if (isRunning()) {
        signalGroup(SIGKILL);
        m_process->waitForFinished(QuitWaitMs);
    }
}

void ChildProcess::signalGroup(int signal)
{
    if (m_groupId > 0) {
        ::kill(static_cast<pid_t>(-m_groupId), signal);
    }
}

QString ChildProcess::utf8Locale()
{
    static const QString locale =
        localeInstalled("en_US.UTF-8") ? QStringLiteral("en_US.UTF-8") : QStringLiteral("C.UTF-8");
    return locale;
}
