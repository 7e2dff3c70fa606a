#pragma once

#include "store/GridAction.h"

#include <QString>
#include <QStringList>

#include <functional>
#include <memory>

// Where the events handler hands actions that stand for one of the desktop's sharing
// services. The sharing adapter is set on the handler; without one such runs are logged.
class SharingServiceDispatcher {
public:
    virtual ~SharingServiceDispatcher() = default;

    // `completion`, when given, is called once when the sharing has ended.
    virtual void shareItems(const GridAction& gridAction, const QStringList& filePaths,
                            std::function<void()> completion) = 0;
    virtual void shareText(const GridAction& gridAction, const QString& text) = 0;
    virtual void handleClick(const GridAction& gridAction) = 0;
};
