#pragma once

class AlertHelper;
class DebugConsoleController;
class DesktopServices;
class DropbarSink;
class Icons;
class NotificationCenter;
class RecentItems;
class Settings;
class TaskStatusController;
class TasksController;
class WindowPresenter;

// The services a task and everything that runs beside it (its runner, its output handler,
// built-in actions) report to; the engine owns them and hands this out.
struct TaskContext {
    Settings& settings;
    NotificationCenter& notifications;
    NotificationCenter& distributed; // reaches the command-line tool
    AlertHelper& alerts;
    WindowPresenter& windows;
    DesktopServices& desktop;
    Icons& icons;
    TasksController& tasks;
    TaskStatusController& taskStatuses;
    DebugConsoleController& debugConsole;
    RecentItems& recentItems;
    DropbarSink& dropbarSink;
};
