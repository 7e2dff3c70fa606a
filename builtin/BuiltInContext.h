#pragma once

class Launcher;
struct TaskContext;

// What a built-in action run reports to and hands work to: the task services it shares
// with script runs, and the desktop's launcher.
struct BuiltInContext {
    const TaskContext& tasks;
    Launcher& launcher;
};
