#pragma once

#include "app/Engine.h"
#include "tests/support/FakePresenters.h"
#include "tests/support/TestHome.h"

#include <memory>

// One test's engine: a private home, fake presenters and desktop, a swappable secret store,
// and the shared grid store reopened in that home (not loaded).
class TestEngine {
public:
    // The launcher is GIO's unless a test gives one.
    explicit TestEngine(std::shared_ptr<Launcher> launcher = nullptr);
    ~TestEngine();
    TestEngine(const TestEngine&) = delete;
    TestEngine& operator=(const TestEngine&) = delete;

    Engine& engine() { return *m_engine; }
    Engine* operator->() { return m_engine.get(); }
    TestHome& home() { return m_home; }
    FakeAlertPresenter& alerts() { return *m_alerts; }
    FakeWindowPresenter& windows() { return *m_windows; }
    FakeDesktopServices& desktop() { return *m_desktop; }
    SwappableSecretStore& secrets() { return *m_secrets; }

private:
    TestHome m_home;
    std::shared_ptr<FakeAlertPresenter> m_alerts = std::make_shared<FakeAlertPresenter>();
    std::shared_ptr<FakeWindowPresenter> m_windows = std::make_shared<FakeWindowPresenter>();
    std::shared_ptr<FakeDesktopServices> m_desktop = std::make_shared<FakeDesktopServices>();
    std::shared_ptr<SwappableSecretStore> m_secrets = std::make_shared<SwappableSecretStore>();
    std::unique_ptr<Engine> m_engine;
};
