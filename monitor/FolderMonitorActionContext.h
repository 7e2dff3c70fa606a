#pragma once

#include "platform/FileBookmark.h"
#include "tasks/FolderMonitorContext.h"

#include <QSet>
#include <QString>
#include <QStringList>

#include <functional>
#include <mutex>

// What one run of an action on a monitored folder's files carries: the identities of the
// files the action wrote, so that its own outputs landing in the folder are not taken for
// arrivals. Outputs are registered from task threads; finish() runs on the main thread and
// hands them to the session, which drops them from later batches (an output settles only
// after the run has ended).
class FolderMonitorActionContext : public FolderMonitorContext {
public:
    using Finished = std::function<void(const QSet<FileIdentity>& outputs)>;

    FolderMonitorActionContext(QString folder, Finished finished);

    const QString& folder() const { return m_folder; }
    // Absolute paths only; a path not (yet) there is looked up again at finish().
    void registerOutputAtPath(const QString& path) override;
    void finish() override;
    // The identities registered so far (safe from any thread).
    QSet<FileIdentity> outputs() const;

private:
    QString m_folder;
    Finished m_finished;
    mutable std::mutex m_mutex;
    QSet<FileIdentity> m_outputs;
    QStringList m_unresolved;
    bool m_finishedOnce = false;
};
