#pragma once

#include <QString>

// What a folder-monitoring run carries through its task: the monitor learns of files the
// action wrote, so it does not take them for new arrivals.
class FolderMonitorContext {
public:
    virtual ~FolderMonitorContext() = default;
    virtual void registerOutputAtPath(const QString& path) = 0;
    // Called once when the run that carried the context has ended (or was dropped); a
    // context with nothing to settle keeps this as it is.
    virtual void finish() {}
};
