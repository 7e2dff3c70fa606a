#pragma once

#include "builtin/ActionInfo.h"
#include "store/GridAction.h"

#include <QList>
#include <QString>

#include <optional>

// The fixed list of actions built into the application, in catalogue order.
class BuiltInActionCatalog {
public:
    BuiltInActionCatalog();

    const QList<ActionInfo>& availableActions() const { return m_availableActions; }
    // Exact, case-sensitive name match; the first in catalogue order.
    std::optional<ActionInfo> getActionWithName(const QString& name) const;
    std::optional<ActionInfo> getActionWithGridAction(const GridAction& gridAction) const;

    // Where the catalogue's shipped images live.
    static QString imagePath(const QString& name);

private:
    QList<ActionInfo> m_availableActions;
};
