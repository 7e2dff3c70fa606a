#include "monitor/FolderMonitorActionContext.h"

#include <QDir>

FolderMonitorActionContext::FolderMonitorActionContext(QString folder, Finished finished)
    : m_folder(std::move(folder))
    , m_finished(std::move(finished))
{}

void FolderMonitorActionContext::registerOutputAtPath(const QString& path)
{
    if (path.isEmpty() || !QDir::isAbsolutePath(path)) {
        return;
    }
    const std::optional<FileIdentity> identity = FileIdentity::of(path);
    const std::lock_guard lock(m_mutex);
    if (identity) {
        m_outputs.insert(*identity);
    } else {
        m_unresolved.append(path);
    }
}

void FolderMonitorActionContext::finish()
{
    QSet<FileIdentity> outputs;
    {
        const std::lock_guard lock(m_mutex);
        if (m_finishedOnce) {
            return;
        }
        m_finishedOnce = true;
        for (const std::optional<FileIdentity>& identity : FileIdentity::ofAll(m_unresolved)) {
            if (identity) {
                m_outputs.insert(*identity);
            }
        }
        m_unresolved.clear();
        outputs = m_outputs;
    }
    if (m_finished) {
        m_finished(outputs);
    }
}

QSet<FileIdentity> FolderMonitorActionContext::outputs() const
{
    const std::lock_guard lock(m_mutex);
    return m_outputs;
}
