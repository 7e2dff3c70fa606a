#include "grid/GridLayout.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

constexpr qreal CellSpacing = 15;
constexpr qreal GridMargin = 45;
// Larger categories count as this many for the column table.
constexpr int ColumnTableCap = 50;

qreal maxY(const QRectF& frame)
{
    return frame.y() + frame.height();
}

} // namespace

int GridLayout::columnsForCells(int cells)
{
    if (cells <= 3)
        return 3;
    if (cells == 4)
        return 4;
    if (cells <= 10)
        return 5;
    if (cells <= 18)
        return 6;
    if (cells <= 28)
        return 7;
    if (cells <= 40)
        return 8;
    if (cells <= 45)
        return 9;
    return 10;
}

void GridLayout::calculate(const Content& content, bool excludingSpecialActions)
{
    m_numRows = 0;
    m_numCols = 0;
    m_numCategoriesWithItems = 0;

    QList<int> sections;
    const int dropbarCells = excludingSpecialActions ? 0 : content.dropbarCount + 1;
    sections.append(dropbarCells);
    const bool automatic = content.columnsSetting < 1;
    if (automatic)
        m_numCols = columnsForCells(dropbarCells);
    for (const int actions : content.categoryActionCounts) {
        if (actions < 1)
            continue;
        ++m_numCategoriesWithItems;
        sections.append(actions);
        if (automatic)
            m_numCols = std::max(m_numCols, columnsForCells(std::min(actions, ColumnTableCap)));
    }
    if (!automatic)
        m_numCols = content.columnsSetting;
    else if (m_numCols == 0)
        m_numCols = 3;
    for (const int cells : sections)
        m_numRows += (cells + m_numCols - 1) / m_numCols;
}

qreal GridLayout::gridWidth() const
{
    return GridMargin + (m_iconSize + CellSpacing) * m_numCols;
}

qreal GridLayout::iconSizeForGridWidth(qreal width) const
{
    if (m_numCols == 0)
        return 0;
    return (width - CellSpacing * m_numCols - GridMargin) / m_numCols;
}

bool GridLayout::getInsertionCategory(const QPointF& point, Insertion* insertion) const
{
    if (m_secondary || !m_bounds.contains(point))
        return false;
    const Divider* chosen = nullptr;
    for (const Divider& divider : m_dividers) {
        if (!divider.visible)
            continue;
        if (divider.taskProgress) {
            if (point.y() <= maxY(divider.frame))
                return false;
            continue;
        }
        if (divider.categoryId >= 1 && maxY(divider.frame) >= point.y())
            chosen = &divider;
    }
    if (!chosen)
        return false;

    insertion->categoryId = chosen->categoryId;
    insertion->index = 0;
    const QList<QRectF> cells = m_cells.value(chosen->categoryId);
    if (cells.isEmpty())
        return true;
    const int count = int(cells.size());
    const int step = m_numCols > 1 ? m_numCols : 1;
    int rowStart = 0;
    qreal nearest = std::numeric_limits<qreal>::max();
    for (int start = 0; start < count; start += step) {
        const qreal distance = std::abs(cells[start].center().y() - point.y());
        if (distance < nearest) {
            nearest = distance;
            rowStart = start;
        }
    }
    const int rowEnd = std::min(rowStart + step, count);
    insertion->index = rowEnd;
    for (int at = rowStart; at < rowEnd; ++at) {
        if (cells[at].center().x() > point.x()) {
            insertion->index = at;
            break;
        }
    }
    return true;
}
