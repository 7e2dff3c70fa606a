#include "builtin/RunShortcutAction.h"

#include "builtin/BuiltInActionTaskBridge.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <QTemporaryFile>

QString RunShortcutAction::commandPath()
{
    const QString system = QStringLiteral("/usr/bin/shortcuts");
    if (QFileInfo(system).isExecutable()) {
        return system;
    }
    return QStandardPaths::findExecutable(QStringLiteral("shortcuts"));
}

void RunShortcutAction::runWithClick()
{
    start({});
}

void RunShortcutAction::runWithDraggedUrls(const QList<QUrl>& urls)
{
    QStringList paths;
    for (const QUrl& url : urls) {
        if (url.isLocalFile()) {
            paths << url.toLocalFile();
        }
    }
    start(paths);
}

void RunShortcutAction::runWithDraggedText(const QString& text)
{
    QTemporaryFile file(
        QDir(QDir::tempPath()).filePath(QStringLiteral("skelvo-shortcut-XXXXXX.txt")));
    file.setAutoRemove(false);
    if (!file.open() || file.write(text.toUtf8()) < 0) {
        fail(file.errorString());
        return;
    }
    file.close();
    m_temporaryInput = file.fileName();
    start({m_temporaryInput});
}

void RunShortcutAction::fail(const QString& message)
{
    if (!m_temporaryInput.isEmpty()) {
        QFile::remove(m_temporaryInput);
        m_temporaryInput.clear();
    }
    failWithMessage(QStringLiteral("Error: ") + message);
}

void RunShortcutAction::start(const QStringList& inputPaths)
{
    m_name = variable(QStringLiteral("shortcut_name"));
    m_inputPaths = inputPaths;
    const QString command = commandPath();
    if (command.isEmpty()) {
        fail(QStringLiteral("Could not retrieve available shortcuts. Please try again."));
        return;
    }
    // The name is checked against the user's shortcuts before anything runs.
    m_process = new QProcess(this);
    m_process->setStandardInputFile(QProcess::nullDevice());
    connect(m_process, &QProcess::finished, this, [this](int code, QProcess::ExitStatus status) {
        const QByteArray listing = m_process->readAllStandardOutput();
        m_process->deleteLater();
        if (m_cancelled) {
            fail(QStringLiteral("Cancelled"));
            return;
        }
        if (status != QProcess::NormalExit || code != 0) {
            fail(QStringLiteral("Could not retrieve available shortcuts. Please try again."));
            return;
        }
        const QStringList names = QString::fromUtf8(listing).split(u'\n');
        if (!names.contains(m_name)) {
            fail(QStringLiteral("%1 could not be found.\nThe shortcut may have been renamed or "
                                "deleted.")
                     .arg(m_name));
            return;
        }
        runShortcut();
    });
    connect(m_process, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart) {
            m_process->deleteLater();
            fail(QStringLiteral("Could not retrieve available shortcuts. Please try again."));
        }
    });
    m_process->start(command, {QStringLiteral("list")});
}

void RunShortcutAction::runShortcut()
{
    BuiltInActionTaskBridge* bridge = builtInActionTaskBridge();
    bridge->createTaskStatus();
    bridge->beginProgress(false);
    bridge->setStatusText(QStringLiteral("Running ") + m_name);
    QStringList arguments{QStringLiteral("run"), m_name};
    for (const QString& path : std::as_const(m_inputPaths)) {
        arguments << QStringLiteral("--input-path") << path;
    }
    m_process = new QProcess(this);
    m_process->setStandardInputFile(QProcess::nullDevice());
    connect(m_process, &QProcess::finished, this, [this](int code, QProcess::ExitStatus status) {
        const QString errors = QString::fromUtf8(m_process->readAllStandardError()).trimmed();
        m_process->deleteLater();
        if (m_cancelled || status != QProcess::NormalExit || code != 0) {
            fail(m_cancelled
                     ? QStringLiteral("Cancelled")
                     : (errors.isEmpty()
                            ? QStringLiteral("%1 exited with status %2").arg(m_name).arg(code)
                            : errors));
            return;
        }
        if (!m_temporaryInput.isEmpty()) {
            QFile::remove(m_temporaryInput);
        }
        playFinishedSoundIfWanted();
        succeedWithMessage(QString());
    });
    connect(m_process, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart) {
            const QString text = m_process->errorString();
            m_process->deleteLater();
            fail(text);
        }
    });
    m_process->start(commandPath(), arguments);
}

void RunShortcutAction::cancel()
{
    if (m_process && m_process->state() != QProcess::NotRunning) {
        m_cancelled = true;
        m_process->terminate();
    }
}
