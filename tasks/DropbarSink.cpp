#include "tasks/DropbarSink.h"

#include "core/Log.h"

void DropbarSink::addFilePaths(const QStringList& paths)
{
    if (m_adder) {
        m_adder(paths);
        return;
    }
    Log::warning(QStringLiteral("No Drop Bar to add %1 item(s) to: %2")
                     .arg(paths.size())
                     .arg(paths.join(QStringLiteral(", "))));
}
