#pragma once

#include "builtin/BuiltInAction.h"

#include <QPointer>
#include <QProcess>

// "Run Shortcut": runs a named shortcut through the `shortcuts` command, where it exists,
// with the dropped files or text as input.
class RunShortcutAction : public BuiltInAction {
    Q_OBJECT
public:
    void runWithClick() override;
    void runWithDraggedUrls(const QList<QUrl>& urls) override;
    void runWithDraggedText(const QString& text) override;
    void cancel() override;

    // The `shortcuts` command, or empty where the system has none.
    static QString commandPath();

private:
    void start(const QStringList& inputPaths);
    void runShortcut();
    void fail(const QString& message);

    QString m_name;
    QStringList m_inputPaths;
    QString m_temporaryInput; // removed when the run ends
    QPointer<QProcess> m_process;
    bool m_cancelled = false;
};
