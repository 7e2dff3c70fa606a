#include "tests/support/TestEngine.h"

#include "store/GridDatabase.h"

TestEngine::TestEngine(std::shared_ptr<Launcher> launcher)
{
    GridDatabase::reopenShared();
    m_engine = std::make_unique<Engine>(
        EngineParts{m_alerts, m_windows, m_desktop, m_secrets, std::move(launcher)});
}

TestEngine::~TestEngine()
{
    m_engine.reset();
    // The test process keeps no connection to the removed home.
    GridDatabase::reopenShared();
}
