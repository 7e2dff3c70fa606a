#include "builtin/RunAppleScriptAction.h"

#include "builtin/BuiltInActionTaskBridge.h"

#include <QFile>
#include <QSaveFile>
#include <QStandardPaths>

namespace {

QString errorTitle(const QString& actionName)
{
    return actionName.isEmpty() ? QStringLiteral("AppleScript Error")
                                : actionName + QStringLiteral(" Error");
}

} // namespace

QString RunAppleScriptAction::interpreterPath()
{
    return QStandardPaths::findExecutable(QStringLiteral("osascript"));
}

QString RunAppleScriptAction::draggedFilesPlistPath()
{
    return QStringLiteral("/tmp/dragged-files.plist");
}

QString RunAppleScriptAction::draggedFilesPreamble()
{
    return QStringLiteral(
        "    tell application \"System Events\"\n\n        set draggedFiles to {}\n\n        set "
        "the plist_path to \"/tmp/dragged-files.plist\"\n        set the plist_file to property "
        "list file plist_path\n\n        set itemNodes to property list items of "
        "plist_file\n\n        repeat with i from 1 to number of items in itemNodes\n            "
        "set itemNode to item i of itemNodes\n            set the end of draggedFiles to value "
        "of itemNode as POSIX file\n        end repeat\n\n    end tell");
}

QByteArray RunAppleScriptAction::propertyList(const QStringList& paths)
{
    QByteArray xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                     "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
                     "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
                     "<plist version=\"1.0\">\n<array>\n";
    for (const QString& path : paths) {
        xml += "\t<string>" + path.toHtmlEscaped().toUtf8() + "</string>\n";
    }
    xml += "</array>\n</plist>\n";
    return xml;
}

QString RunAppleScriptAction::source() const
{
    // The panel stores "applescript"; the command line's option is "script".
    const QString text = variable(QStringLiteral("applescript"));
    return text.isEmpty() ? variable(QStringLiteral("script")) : text;
}

void RunAppleScriptAction::runWithClick()
{
    run(source(), false);
}

void RunAppleScriptAction::runWithDraggedUrls(const QList<QUrl>& urls)
{
    if (variable(QStringLiteral("handles_option")) != u"1") {
        run(source(), false);
        return;
    }
    QStringList paths;
    for (const QUrl& url : urls) {
        if (url.isLocalFile()) {
            paths << url.toLocalFile();
        }
    }
    QSaveFile plist(draggedFilesPlistPath());
    if (!plist.open(QIODevice::WriteOnly) || plist.write(propertyList(paths)) < 0 ||
        !plist.commit()) {
        failWithMessage(plist.errorString(), errorTitle(actionName()));
        return;
    }
    run(draggedFilesPreamble() + u'\n' + source(), true);
}

void RunAppleScriptAction::run(const QString& source, bool removePlist)
{
    const QString interpreter = interpreterPath();
    if (interpreter.isEmpty()) {
        if (removePlist) {
            QFile::remove(draggedFilesPlistPath());
        }
        failWithMessage(QStringLiteral("AppleScript cannot be run: the osascript command is not "
                                       "available on this system."),
                        errorTitle(actionName()));
        return;
    }
    m_process = new QProcess(this);
    connect(m_process, &QProcess::finished, this,
            [this, removePlist](int code, QProcess::ExitStatus status) {
                const QString errors =
                    QString::fromUtf8(m_process->readAllStandardError()).trimmed();
                m_process->deleteLater();
                if (removePlist) {
                    QFile::remove(draggedFilesPlistPath());
                }
                if (status != QProcess::NormalExit || code != 0) {
                    failWithMessage(errors, errorTitle(actionName()));
                    return;
                }
                finish();
            });
    connect(m_process, &QProcess::errorOccurred, this,
            [this, removePlist](QProcess::ProcessError error) {
                if (error == QProcess::FailedToStart) {
                    const QString text = m_process->errorString();
                    m_process->deleteLater();
                    if (removePlist) {
                        QFile::remove(draggedFilesPlistPath());
                    }
                    failWithMessage(text, errorTitle(actionName()));
                }
            });
    // The source goes in on standard input: osascript reads a script from there.
    m_process->start(interpreter, {QStringLiteral("-")});
    m_process->write(source.toUtf8());
    m_process->closeWriteChannel();
}
