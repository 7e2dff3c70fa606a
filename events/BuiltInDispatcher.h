#pragma once

#include "store/GridAction.h"

#include <QList>
#include <QString>
#include <QUrl>

#include <functional>
#include <memory>

class FolderMonitorContext;

// Where the events handler hands runs of built-in actions. The engine sets the built-in
// action runner on its handler at start-up; until then EventsHandler alerts that built-in
// actions cannot run and starts nothing.
class BuiltInDispatcher {
public:
    virtual ~BuiltInDispatcher() = default;

    // Each run calls its `completion`, when one is given (monitored and command-line runs),
    // exactly once when it has ended, however it ended.
    virtual void runActionWithDrag(const GridActionPtr& gridAction, const QList<QUrl>& draggedUrls,
                                   const QString& keyModifier,
                                   const std::shared_ptr<FolderMonitorContext>& context,
                                   std::function<void()> completion) = 0;
    virtual void runActionWithDrag(const GridActionPtr& gridAction, const QString& draggedText,
                                   const QString& keyModifier,
                                   std::function<void()> completion) = 0;
    virtual void runActionWithClick(const GridActionPtr& gridAction,
                                    std::function<void()> completion) = 0;
};
