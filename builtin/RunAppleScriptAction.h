#pragma once

#include "builtin/BuiltInAction.h"

#include <QPointer>
#include <QProcess>

// "Run AppleScript": runs the configured source through `osascript`, where it exists; on a
// drop the files reach the script as the list `draggedFiles`.
class RunAppleScriptAction : public BuiltInAction {
    Q_OBJECT
public:
    void runWithClick() override;
    void runWithDraggedUrls(const QList<QUrl>& urls) override;

    // `osascript`, or empty where the system has none.
    static QString interpreterPath();
    // Where the dropped paths are handed to the script.
    static QString draggedFilesPlistPath();
    // Text put before the user's source so that it sees `draggedFiles`.
    static QString draggedFilesPreamble();
    // The paths as a property-list array.
    static QByteArray propertyList(const QStringList& paths);

private:
    QString source() const;
    void run(const QString& source, bool removePlist);

    QPointer<QProcess> m_process;
};
