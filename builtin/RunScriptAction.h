#pragma once

#include "builtin/BuiltInAction.h"

#include <QPointer>
#include <QProcess>

class ChildProcess;
#include <QStringDecoder>

// "Run Script": runs the chosen script under the interpreter its shebang names, with the
// dropped files' paths as arguments, its output in the action console.
class RunScriptAction : public BuiltInAction {
    Q_OBJECT
public:
    ~RunScriptAction() override;

    void runWithClick() override;
    void runWithDraggedUrls(const QList<QUrl>& urls) override;
    void cancel() override;

    // The interpreter and its arguments from a script's first line; empty without a shebang.
    static QStringList shebangCommand(const QString& scriptPath);
    // The process group of the running script, 0 when none runs.
    qint64 processId() const;

private:
    void run(const QStringList& filePaths, bool dragged);
    void readOutput(QProcess::ProcessChannel channel);
    void processFinished(int exitCode, QProcess::ExitStatus status);
    void failedToStart();

    QPointer<ChildProcess> m_child;
    QStringDecoder m_stdoutDecoder{QStringDecoder::Utf8};
    QStringDecoder m_stderrDecoder{QStringDecoder::Utf8};
    bool m_cancelled = false;
};
