#include "grid/GridLayout.h"

#include <gtest/gtest.h>

TEST(GridLayout, ColumnsAndRows)
{
    const struct {
        const char* name;
        GridLayout::Content content;
        bool excludingSpecialActions;
        int cols, rows, categoriesWithItems;
    } rows[] = {
        {"two Drop Bars, 12 and 2 actions", {2, {12, 2}, 0}, false, 6, 4, 2},
        {"70 actions count as 50 for columns", {0, {70}, 0}, false, 10, 8, 1},
        {"set to 4 columns", {1, {9}, 4}, false, 4, 4, 1},
        {"empty categories add nothing", {0, {0, 3, 0}, 0}, false, 3, 2, 1},
        {"nothing at all", {0, {}, 0}, true, 3, 0, 0},
        {"without the Drop Bar row", {5, {4}, 0}, true, 4, 1, 1},
        {"many Drop Bars set the columns", {40, {1}, 0}, false, 9, 6, 1},
    };
    for (const auto& row : rows) {
        GridLayout layout;
        layout.calculate(row.content, row.excludingSpecialActions);
        EXPECT_EQ(layout.numCols(), row.cols) << row.name;
        EXPECT_EQ(layout.numRows(), row.rows) << row.name;
        EXPECT_EQ(layout.numCategoriesWithItems(), row.categoriesWithItems) << row.name;
    }
    // The table's edges.
    const int edges[][2] = {{3, 3},  {4, 4},  {5, 5},  {10, 5}, {11, 6}, {18, 6}, {19, 7},
                            {28, 7}, {29, 8}, {40, 8}, {41, 9}, {45, 9}, {46, 10}};
    for (const auto& [cells, cols] : edges)
        EXPECT_EQ(GridLayout::columnsForCells(cells), cols) << cells;
}

TEST(GridLayout, WidthAndIconSizeAreInverse)
{
    GridLayout layout;
    layout.calculate({0, {7}, 0}, false);
    ASSERT_EQ(layout.numCols(), 5);
    layout.setIconSize(60);
    EXPECT_EQ(layout.gridWidth(), 420);
    EXPECT_EQ(layout.iconSizeForGridWidth(420), 60);
    EXPECT_EQ(GridLayout().iconSizeForGridWidth(420), 0);
}

// Two categories of cells 50 points square, three to a row, drawn from the top (y up) of a
// 400-point-high layer: category 7 with 5 actions under a divider up to 395, then category 9
// with none under a divider at 250, and the task-progress area below 60.
TEST(GridLayout, InsertionPoints)
{
    GridLayout layout;
    layout.calculate({0, {5, 0}, 3}, true);
    layout.setBounds(QRectF(0, 0, 200, 400));
    layout.setGridDividers({{7, QRectF(0, 375, 200, 20)},
                            {9, QRectF(0, 230, 200, 20)},
                            {0, QRectF(0, 40, 200, 20), true, true}});
    QList<QRectF> cells;
    for (int i = 0; i < 5; ++i)
        cells.append(QRectF(10 + 60 * (i % 3), 320 - 60 * (i / 3), 50, 50));
    layout.setCurrentGridActionLayers({{7, cells}});

    const struct {
        const char* name;
        QPointF point;
        bool possible;
        CategoryId category;
        int index;
    } rows[] = {
        {"left of the first row's middles", {5, 340}, true, 7, 0},
        {"between the first two", {60, 345}, true, 7, 1},
        {"right of the first row", {195, 345}, true, 7, 3},
        {"right of the short last row", {190, 280}, true, 7, 5},
        {"middle of the second row", {70, 285}, true, 7, 4},
        {"an empty category", {100, 200}, true, 9, 0},
        {"over the task progress", {100, 50}, false, 0, 0},
        {"above every divider", {100, 398}, false, 0, 0},
        {"outside the layer", {-1, 300}, false, 0, 0},
    };
    for (const auto& row : rows) {
        GridLayout::Insertion insertion;
        ASSERT_EQ(layout.getInsertionCategory(row.point, &insertion), row.possible) << row.name;
        if (row.possible) {
            EXPECT_EQ(insertion.categoryId, row.category) << row.name;
            EXPECT_EQ(insertion.index, row.index) << row.name;
        }
    }
    layout.setSecondaryGrid(true);
    GridLayout::Insertion insertion;
    EXPECT_FALSE(layout.getInsertionCategory({5, 340}, &insertion));
}
