#pragma once

#include "actions/ActionDownloader.h"
#include "actions/ActionFilesController.h"
#include "actions/ActionServer.h"
#include "actions/ActionUpdatesController.h"
#include "builtin/BuiltInContext.h"
#include "core/AlertHelper.h"
#include "core/NotificationCenter.h"
#include "core/Settings.h"
#include "dropbar/DropbarController.h"
#include "events/EventsHandler.h"
#include "monitor/FolderMonitoringManager.h"
#include "monitor/ScreenshotDropBarManager.h"
#include "store/GridStoreHooks.h"
#include "store/Icons.h"
#include "store/MonitorJournal.h"
#include "store/StoreContext.h"
#include "tasks/DebugConsoleController.h"
#include "tasks/DropbarSink.h"
#include "tasks/RecentItems.h"
#include "tasks/Task.h"
#include "tasks/TaskContext.h"
#include "tasks/TaskStatusController.h"
#include "tasks/TasksController.h"

#include <memory>

class DesktopServices;
class Launcher;
class SecretStore;
class WindowPresenter;

// What differs between the desktop, headless runs and tests. Each part left empty gets the
// headless one (alerts and windows logged, clipboard in memory), a secret file readable by
// the user only, and the GIO launcher.
struct EngineParts {
    std::shared_ptr<AlertPresenter> alerts;
    std::shared_ptr<WindowPresenter> windows;
    std::shared_ptr<DesktopServices> desktop;
    std::shared_ptr<SecretStore> secrets;
    std::shared_ptr<Launcher> launcher;
};

// Everything of the engine that lives for a whole run, apart from the few process-wide
// instances (the grid store, the action parser, the built-in runner), built in the order of
// the layers and handed to what needs it. Creating it reads the settings of the SKELVO_HOME
// of the moment and hands its services to the process-wide instances; destroying it takes
// them back.
class Engine {
public:
    explicit Engine(EngineParts parts = {});
    ~Engine();
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

private:
    EngineParts m_parts; // keeps the injected parts alive; declared first, so built first

public:
    // core
    Settings settings;
    NotificationCenter notifications;
    NotificationCenter distributed; // reaches the command-line tool
    AlertHelper alerts;
    WindowPresenter& windows;
    DesktopServices& desktop;
    SecretStore& secrets;
    // platform
    Launcher& launcher;
    // actions: the library of installed and add-on actions
    ActionServer actionServer;
    ActionFilesController actionFiles;
    ActionDownloader actionDownloader;
    ActionUpdatesController actionUpdates;
    // store
    GridStoreHooks storeHooks;
    Icons icons;
    const StoreContext storeContext;
    // tasks
    DebugConsoleController debugConsole;
    RecentItems recentItems;
    DropbarSink dropbarSink;
    TaskStatusController taskStatuses;
    TasksController tasks;
    const TaskContext taskContext;
    // events
    EventsHandler events;
    // builtin
    const BuiltInContext builtInContext;
    // dropbar
    const std::shared_ptr<DropbarController> dropbars;
    // monitor
    MonitorJournal monitorJournal;
    FolderMonitoringManager monitoring;
    // screenshots
    ScreenshotDropBarManager screenshots;

    // Lists the built-in actions with the parser and lets the events handler run them
    // through the shared runner (start-up).
    void installBuiltInActions();
};
