#include "tasks/DropbarSink.h"

#include "core/Log.h"

namespace {

void logDropped(const QStringList& paths)
{
    Log::warning(QStringLiteral("No Drop Bar to add %1 item(s) to: %2")
                     .arg(paths.size())
                     .arg(paths.join(QStringLiteral(", "))));
}

} // namespace

void DropbarSink::addFilePaths(const QStringList& paths)
{
    if (m_receiver.add) {
        m_receiver.add(paths);
        return;
    }
    logDropped(paths);
}

void DropbarSink::addFilePathsToGrid(const QStringList& paths, GridId gridId, Added done)
{
    if (m_receiver.addToGrid) {
        m_receiver.addToGrid(paths, gridId, std::move(done));
        return;
    }
    logDropped(paths);
    if (done) {
        done(false, Identifiers::None);
    }
}

bool DropbarSink::removeDropbar(DropbarId dropbarId)
{
    return m_receiver.remove && m_receiver.remove(dropbarId);
}
