#pragma once

#include "core/Identifiers.h"

#include <QHash>
#include <QList>
#include <QPointF>
#include <QRectF>

// The geometry of a grid of square icon cells: how many columns and rows its content takes,
// how wide it is for an icon size and the reverse, and where a point over it would insert an
// action. Pure arithmetic: the grid window feeds it counts and the frames it drew.
//
// Frames and points are in the grid's main layer with y growing upwards, so a frame's
// maximum y is its top edge.
class GridLayout {
public:
    // What the layout counts of a grid.
    struct Content {
        int dropbarCount = 0;
        QList<int> categoryActionCounts; // in display order
        int columnsSetting = 0;          // the grid's num_cols; below 1 means automatic
    };
    // A category header, or the task-progress area's divider.
    struct Divider {
        CategoryId categoryId = 0;
        QRectF frame;
        bool visible = true;
        bool taskProgress = false;
    };
    struct Insertion {
        CategoryId categoryId = 0;
        int index = 0;
    };

    // The number of columns that suits a section of `cells` cells.
    static int columnsForCells(int cells);

    void calculateNumColumnsAndRows(const Content& content) { calculate(content, false); }
    // Without the Drop Bar row when `excludingSpecialActions`.
    void calculate(const Content& content, bool excludingSpecialActions);

    int numCols() const { return m_numCols; }
    int numRows() const { return m_numRows; }
    int numCategoriesWithItems() const { return m_numCategoriesWithItems; }

    qreal iconSize() const { return m_iconSize; }
    void setIconSize(qreal points) { m_iconSize = points; }
    qreal gridWidth() const;
    qreal iconSizeForGridWidth(qreal width) const;

    bool isSecondaryGrid() const { return m_secondary; }
    void setSecondaryGrid(bool secondary) { m_secondary = secondary; }
    // What the window drew: the dividers in order and each category's action cells in order.
    void setGridDividers(QList<Divider> dividers) { m_dividers = std::move(dividers); }
    void setCurrentGridActionLayers(QHash<CategoryId, QList<QRectF>> cells)
    {
        m_cells = std::move(cells);
    }
    void setBounds(const QRectF& bounds) { m_bounds = bounds; }

    // Where an action dropped at `point` would go; false when it cannot go there.
    bool getInsertionCategory(const QPointF& point, Insertion* insertion) const;

private:
    int m_numCols = 0;
    int m_numRows = 0;
    int m_numCategoriesWithItems = 0;
    qreal m_iconSize = 0;
    bool m_secondary = false;
    QRectF m_bounds;
    QList<Divider> m_dividers;
    QHash<CategoryId, QList<QRectF>> m_cells;
};
