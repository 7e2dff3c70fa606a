#include "store/GridDatabase.h"

#include "core/NotificationCenter.h"
#include "core/Settings.h"
#include "store/GridAction.h"
#include "tests/store/StoreTestSupport.h"

#include <QFileInfo>

namespace {

qint64 idOf(const SqlRow& row)
{
    return row.value(QStringLiteral("id")).toLongLong();
}

class GridDatabaseTest : public StoreTest {
protected:
    GridAction action(const QString& name, CategoryId category, int position = 0,
                      const QString& type = QStringLiteral("Move Files"))
    {
        GridAction a;
        a.name = name;
        a.type = type;
        a.categoryId = category;
        a.position = position;
        a.servicesKey = name.left(1).toUpper();
        a.usingDefaultIcon = true;
        return a;
    }
    // An empty grid of its own, selected.
    GridId selectNewGrid(const QString& name)
    {
        const GridId grid = db().addGridWithName(name);
        db().setSelectedGridId(grid);
        return grid;
    }
};

// --- Grids

TEST_F(GridDatabaseTest, NewGridsGoLast)
{
    ASSERT_TRUE(db().runQuery(QStringLiteral("DELETE FROM grids")).isEmpty());
    NotificationCount changed(engine().notifications, Notifications::GridsChanged);
    const GridId first = db().addGridWithName(QStringLiteral("First"));
    ASSERT_NE(first, 0);
    EXPECT_EQ(db().getGrids().first().value(QStringLiteral("display_order")).toInt(), 0);
    EXPECT_EQ(changed.count, 1);

    ASSERT_TRUE(db().updateGrid(first, QStringLiteral("First"), 3));
    const GridId second = db().addGridWithName(QStringLiteral("Second"));
    const SqlRows grids = db().getGrids();
    ASSERT_EQ(grids.size(), 2);
    EXPECT_EQ(idOf(grids.last()), second);
    EXPECT_EQ(grids.last().value(QStringLiteral("display_order")).toInt(), 4);
    // Defaults of a new row.
    EXPECT_EQ(db().gridSizeForGrid(second), 70.0);
    EXPECT_EQ(db().numColsForGrid(second), 0);
    EXPECT_TRUE(db().specialActionsVisibleForGrid(second));
    EXPECT_TRUE(db().gridSwitcherVisibleForGrid(second));
}

TEST_F(GridDatabaseTest, PerGridSettingsAreWrittenAndReadLeniently)
{
    const GridId grid = db().selectedGridId();
    // Below one columns means automatic, stored as NULL.
    for (const auto& [given, read, stored] :
         {std::tuple{0, 0, "NULL"}, {5, 5, "5"}, {-2, 0, "NULL"}, {1, 1, "1"}}) {
        ASSERT_TRUE(db().setNumCols(given, grid));
        EXPECT_EQ(db().numColsForGrid(grid), read) << given;
        EXPECT_EQ(
            value(QStringLiteral("SELECT quote(num_cols) FROM grids WHERE id = %1").arg(grid)),
            QString::fromLatin1(stored));
    }
    // Only 1 or NULL reads as visible.
    for (const auto& [stored, visible] :
         {std::pair{"1", true}, {"NULL", true}, {"0", false}, {"2", false}, {"'yes'", false}}) {
        db().runQuery(QStringLiteral("UPDATE grids SET special_actions_visible = %1, "
                                     "grid_switcher_visible = %1 WHERE id = ?")
                          .arg(QString::fromLatin1(stored)),
                      {grid});
        EXPECT_EQ(db().specialActionsVisibleForGrid(grid), visible) << stored;
        EXPECT_EQ(db().gridSwitcherVisibleForGrid(grid), visible) << stored;
    }
    ASSERT_TRUE(db().setSpecialActionsVisible(true, grid));
    ASSERT_TRUE(db().setGridSwitcherVisible(false, grid));
    ASSERT_TRUE(db().setGridSizeForSelectedGrid(48.5));
    EXPECT_TRUE(db().specialActionsVisibleForGrid(grid));
    EXPECT_FALSE(db().gridSwitcherVisibleForGrid(grid));
    EXPECT_EQ(db().gridSizeForSelectedGrid(), 48.5);
}

TEST_F(GridDatabaseTest, SelectedGridFallsBackToTheFirstInDisplayOrder)
{
    const GridId main = 1;
    const GridId other = db().addGridWithName(QStringLiteral("Other"));
    ASSERT_TRUE(db().updateGrid(other, QStringLiteral("Other"), -1)); // first in order

    engine().settings.setValue(Settings::SelectedGridId, 0);
    EXPECT_EQ(db().selectedGridId(), other);
    EXPECT_EQ(engine().settings.integerValue(Settings::SelectedGridId), other);

    db().setSelectedGridId(main);
    EXPECT_EQ(db().selectedGridId(), main);
    ASSERT_TRUE(db().selectedGrid());
    EXPECT_EQ(db().selectedGrid()->value(QStringLiteral("name")).toString(),
              QStringLiteral("Main Grid"));

    db().setSelectedGridId(4242); // gone
    EXPECT_EQ(db().selectedGridId(), other);

    db().runQuery(QStringLiteral("DELETE FROM grids"));
    db().setSelectedGridId(77);
    EXPECT_EQ(db().selectedGridId(), 77); // nothing to fall back to
    EXPECT_FALSE(db().selectedGrid());
}

TEST_F(GridDatabaseTest, DeletingAGridRemovesEverythingBeneathIt)
{
    const auto fill = [this](GridId grid) {
        const ActionId id = db().addAction(
            action(QStringLiteral("A"), db().addCategoryWithName(QStringLiteral("C"), grid)),
            {{QStringLiteral("path"), QStringLiteral("/x")}});
        const DropbarId bar = db().addDropbarWithTitle(QStringLiteral("Shelf"), {}, false, grid);
        db().addItemToDropbar(bar, QStringLiteral("text"), {}, QStringLiteral("t"), {});
        return std::pair{id, bar};
    };
    const GridId doomed = db().addGridWithName(QStringLiteral("Doomed"));
    const auto [doomedAction, doomedBar] = fill(doomed);
    const auto [keptAction, keptBar] = fill(1);

    NotificationCount changed(engine().notifications, Notifications::GridsChanged);
    ASSERT_TRUE(db().deleteGrid(doomed));
    EXPECT_EQ(changed.count, 1);
    for (const QString& rows :
         {QStringLiteral("grids WHERE id = %1").arg(doomed),
          QStringLiteral("categories WHERE grid_id = %1").arg(doomed),
          QStringLiteral("actions WHERE id = %1").arg(doomedAction),
          QStringLiteral("action_variables WHERE action_id = %1").arg(doomedAction),
          QStringLiteral("dropbars WHERE grid_id = %1").arg(doomed),
          QStringLiteral("dropbar_items WHERE dropbar_id = %1").arg(doomedBar)}) {
        EXPECT_EQ(value(QStringLiteral("SELECT COUNT(*) FROM ") + rows), QStringLiteral("0"))
            << rows.toStdString();
    }
    EXPECT_TRUE(db().getGridActionWithId(keptAction));
    EXPECT_EQ(db().getItemsForDropbar(keptBar).size(), 1);
    EXPECT_EQ(db().categoriesForGrid(1).size(), 4);
    EXPECT_EQ(value(QStringLiteral("PRAGMA integrity_check")), QStringLiteral("ok"));
}

// --- Categories

TEST_F(GridDatabaseTest, CategoriesAreNumberedPerGridAndTheFirstIsTheLowestId)
{
    const GridId grid = selectNewGrid(QStringLiteral("Empty"));
    const CategoryId first = db().addCategoryWithName(QStringLiteral("A"), grid);
    const CategoryId second = db().addCategoryWithName(QStringLiteral("B"), grid);
    EXPECT_EQ(
        column(QStringLiteral("SELECT display_order FROM categories WHERE grid_id = %1").arg(grid)),
        (QStringList{QStringLiteral("0"), QStringLiteral("1")}));
    // The shipped grid's categories go on from 2.
    const CategoryId more = db().addCategoryWithName(QStringLiteral("More"), 1);
    EXPECT_EQ(db().categoriesForGrid(1).last().value(QStringLiteral("display_order")).toInt(), 3);
    EXPECT_EQ(db().getCategories().size(), 6);

    ASSERT_TRUE(db().updateCategory(second, QStringLiteral("Renamed")));
    ASSERT_TRUE(db().updateCategoryDisplayOrder(second, -1));
    ASSERT_TRUE(db().updateCategoryDisplayOrder(first, 10)); // shown last, still the first
    ASSERT_TRUE(db().updateCategoryGridId(more, grid));
    const SqlRows after = db().categoriesForGrid(grid);
    ASSERT_EQ(after.size(), 3);
    EXPECT_EQ(after.first().value(QStringLiteral("name")).toString(), QStringLiteral("Renamed"));
    EXPECT_EQ(db().getFirstCategoryIdForSelectedGrid(), first);
}

TEST_F(GridDatabaseTest, NewActionsArePlacedByCategoryNameOrInTheFirst)
{
    struct Row {
        QStringList categories;
        const char* apps;    // category chosen for "Open Application"
        const char* folders; // for "Copy Files"
        const char* actions; // for any other type
    };
    const Row rows[] = {
        {{"Apps", "My Folders", "Actions"}, "Apps", "My Folders", "Actions"},
        {{"Tools"}, "Tools", "Tools", "Tools"},
        {{}, "Actions", "Actions", "Actions"}, // made when there is none
        // Contains "applications" in any case; the Actions test takes two spellings only.
        {{"Misc", "MY APPLICATIONS", "FOLDERs", "ACTIONS", "actions"},
         "MY APPLICATIONS",
         "FOLDERs",
         "actions"},
        {{"Other", "My Actions"}, "Other", "Other", "Other"},
        // The percent signs are wildcards: a name with none of the words does not match.
        {{"First", "100% app"}, "First", "First", "First"},
    };
    for (const Row& row : rows) {
        const GridId grid = selectNewGrid(QStringLiteral("Placement"));
        for (const QString& name : row.categories) {
            db().addCategoryWithName(name, grid);
        }
        NotificationCount created(engine().notifications, Notifications::GridCategoryCreated);
        const auto nameOf = [&](CategoryId id) {
            return value(
                QStringLiteral("SELECT name FROM categories WHERE id = %1 AND grid_id = %2")
                    .arg(id)
                    .arg(grid));
        };
        const std::string label = row.categories.join(u',').toStdString();
        EXPECT_EQ(nameOf(db().getAppsCategoryIdForSelectedGrid()), QString::fromUtf8(row.apps))
            << label;
        EXPECT_EQ(nameOf(db().getFoldersCategoryIdForSelectedGrid()),
                  QString::fromUtf8(row.folders))
            << label;
        EXPECT_EQ(nameOf(db().getActionsCategoryIdForSelectedGrid()),
                  QString::fromUtf8(row.actions))
            << label;
        EXPECT_EQ(created.count, row.categories.isEmpty() ? 1 : 0);
        EXPECT_EQ(db().categoriesForGrid(grid).size(),
                  std::max<qsizetype>(row.categories.size(), 1));
    }
}

// --- Actions and their variables

TEST_F(GridDatabaseTest, ActionsRoundTripWithTheirVariables)
{
    GridAction a = action(QStringLiteral("Upload"), 1, 0, QStringLiteral("SFTP Upload"));
    a.bundledIcon = QStringLiteral("upload");
    const QByteArray blob("\x00\x01\xff", 3);
    const GridActionVariables variables{{QStringLiteral("path"), QStringLiteral("/srv/a \"b\"")},
                                        {QStringLiteral("scoped_bookmark"), blob},
                                        {QStringLiteral("empty"), QString(QStringLiteral(""))}};
    const ActionId id = db().addAction(a, variables);
    ASSERT_NE(id, 0);

    const GridActionPtr read = db().getGridActionWithId(id);
    ASSERT_TRUE(read);
    EXPECT_EQ(read->name, QStringLiteral("Upload"));
    EXPECT_EQ(read->type, QStringLiteral("SFTP Upload"));
    EXPECT_EQ(read->servicesKey, QStringLiteral("U"));
    EXPECT_EQ(read->bundledIcon, QStringLiteral("upload"));
    EXPECT_EQ(read->categoryId, 1);
    EXPECT_TRUE(read->usingDefaultIcon);
    EXPECT_EQ(read->extraVariables, variables);
    EXPECT_EQ(read->extraVariables.value(QStringLiteral("scoped_bookmark")).typeId(),
              QMetaType::QByteArray);
    EXPECT_EQ(db().getScopedBookmarks(), QList<QByteArray>{blob});
    EXPECT_EQ(value(QStringLiteral("SELECT variable_value FROM action_variables WHERE "
                                   "variable_name = 'scoped_bookmark'")),
              QStringLiteral("NULL"));

    EXPECT_EQ(db().getGridActionWithType(QStringLiteral("SFTP Upload"))->aId, id);
    EXPECT_EQ(db().getGridActionWithName(QStringLiteral("Upload"))->aId, id);

    read->name = QStringLiteral("Renamed");
    read->servicesKey = QString(); // nil is stored as NULL
    read->bundledIcon = QString();
    ASSERT_TRUE(db().updateAction(*read, {{QStringLiteral("only"), QStringLiteral("this")}}));
    const GridActionPtr updated = db().getGridActionWithId(id);
    EXPECT_EQ(updated->name, QStringLiteral("Renamed"));
    EXPECT_TRUE(updated->bundledIcon.isNull());
    EXPECT_EQ(sqlValue(dbPath(),
                       QStringLiteral("SELECT services_key FROM actions WHERE id = %1").arg(id)),
              QStringLiteral("NULL"));
    EXPECT_EQ(updated->extraVariables,
              (GridActionVariables{{QStringLiteral("only"), QStringLiteral("this")}}));
    EXPECT_TRUE(db().getScopedBookmarks().isEmpty());

    // Of rows with the same name the later wins; a blob goes before text.
    db().runQuery(QStringLiteral("INSERT INTO action_variables VALUES (?, 'k', 'first', NULL), "
                                 "(?, 'k', 'second', NULL), (?, 'b', 'text', X'00')"),
                  {id, id, id});
    const GridActionVariables rows = db().getExtraVariablesForActionId(id);
    EXPECT_EQ(rows.value(QStringLiteral("k")).toString(), QStringLiteral("second"));
    EXPECT_EQ(rows.value(QStringLiteral("b")), QVariant(QByteArray(1, '\0')));
}

TEST_F(GridDatabaseTest, PositionsCountsAndMoves)
{
    EXPECT_EQ(db().getNextPositionForCategoryId(2), 0);
    const ActionId a = db().addAction(action(QStringLiteral("A"), 2, 0), {});
    const ActionId b = db().addAction(action(QStringLiteral("B"), 2, 4), {});
    db().addAction(action(QStringLiteral("C"), 3, 1, QStringLiteral("Resize Images")), {});
    EXPECT_EQ(db().getNextPositionForCategoryId(2), 5);
    EXPECT_EQ(db().getNumActions(), 3);
    EXPECT_EQ(db().getNumActionsForCategoryId(2), 2);
    EXPECT_EQ(db().getNumActionsWithWhereClause(QStringLiteral("name IN ('A', 'C')")), 2);

    // B moves behind C, though it was stored first: the order is by position.
    ASSERT_TRUE(db().moveAction(b, 3, 2));
    QStringList order;
    for (const GridActionPtr& each : db().getActionsForCategoryId(3)) {
        order << each->name;
    }
    EXPECT_EQ(order, (QStringList{QStringLiteral("C"), QStringLiteral("B")}));
    EXPECT_EQ(db().getAllActions().size(), 3);

    ASSERT_TRUE(db().updateServicesKeyForActionId(a, QStringLiteral("Q")));
    EXPECT_EQ(db().getGridActionWithId(a)->servicesKey, QStringLiteral("Q"));

    LogCapture log;
    EXPECT_FALSE(db().getGridActionWithId(31337));
    EXPECT_TRUE(log.contains(QStringLiteral("GridAction with ID 31337 not found")));

    // Added actions are looked up in the selected grid only.
    EXPECT_TRUE(db().hasAddedActionWithType(QStringLiteral("Resize Images")));
    EXPECT_FALSE(db().hasAddedActionWithType(QStringLiteral("Convert Images")));
    selectNewGrid(QStringLiteral("Elsewhere"));
    EXPECT_FALSE(db().hasAddedActionWithType(QStringLiteral("Resize Images")));
}

TEST_F(GridDatabaseTest, DeletingAnActionCompactsTheFile)
{
    const QByteArray large(512 * 1024, 'x');
    const ActionId id =
        db().addAction(action(QStringLiteral("Big"), 1), {{QStringLiteral("blob"), large}});
    const qint64 before =
        QFileInfo(dbPath()).size() + QFileInfo(dbPath() + QStringLiteral("-wal")).size();
    db().runQuery(QStringLiteral("PRAGMA wal_checkpoint(TRUNCATE)"));
    ASSERT_TRUE(db().deleteAction(id));
    db().runQuery(QStringLiteral("PRAGMA wal_checkpoint(TRUNCATE)"));
    EXPECT_EQ(value(QStringLiteral("PRAGMA freelist_count")), QStringLiteral("0"));
    EXPECT_LT(QFileInfo(dbPath()).size(), before / 4);
    EXPECT_TRUE(db().getExtraVariablesForActionId(id).isEmpty());
}

// --- Drop Bars

TEST_F(GridDatabaseTest, DropbarsAndItemsAreOrdered)
{
    const DropbarId first =
        db().addDropbarWithTitle(QStringLiteral("One"), QByteArray("i"), true, 1);
    const DropbarId second = db().addDropbarWithTitle(QStringLiteral("Two"), {}, false, 1);
    EXPECT_EQ(db().getDropbarCountForGrid(1), 2);
    SqlRows bars = db().getDropbarsForGrid(1);
    EXPECT_EQ(idOf(bars.at(0)), first);
    EXPECT_TRUE(SqliteConnection::isNull(bars.at(0).value(QStringLiteral("name"))));
    EXPECT_EQ(bars.at(1).value(QStringLiteral("position")).toInt(), 1);

    // An id of another grid is left alone.
    const GridId other = db().addGridWithName(QStringLiteral("Other"));
    const DropbarId foreign = db().addDropbarWithTitle(QStringLiteral("F"), {}, false, other);
    ASSERT_TRUE(db().updateDropbarPositions({second, foreign, first}, 1));
    bars = db().getDropbarsForGrid(1);
    EXPECT_EQ(idOf(bars.at(0)), second);
    EXPECT_EQ(bars.at(1).value(QStringLiteral("position")).toInt(), 2);
    EXPECT_EQ(db().getDropbarsForGrid(other).first().value(QStringLiteral("position")).toInt(), 0);

    ASSERT_TRUE(db().updateDropbar(first, QStringLiteral("T"), QStringLiteral("N"),
                                   QByteArray("icon"), false));
    EXPECT_EQ(db().getDropbarsForGrid(1).last().value(QStringLiteral("name")).toString(),
              QStringLiteral("N"));

    const DropbarItemId a =
        db().addItemToDropbar(first, QStringLiteral("file"), QByteArray("bm"), {}, {});
    db().addItemToDropbar(first, QStringLiteral("text"), {}, QStringLiteral("hi"),
                          QStringLiteral("/t.txt"));
    SqlRows items = db().getItemsForDropbar(first);
    ASSERT_EQ(items.size(), 2);
    EXPECT_EQ(idOf(items.at(0)), a);
    EXPECT_EQ(items.at(1).value(QStringLiteral("position")).toInt(), 1);
    EXPECT_TRUE(SqliteConnection::isNull(items.at(1).value(QStringLiteral("bookmark_data"))));

    ASSERT_TRUE(db().replaceItemsForDropbar(first, {items.at(1), items.at(0)}));
    items = db().getItemsForDropbar(first);
    ASSERT_EQ(items.size(), 2);
    EXPECT_EQ(items.at(0).value(QStringLiteral("text_content")).toString(), QStringLiteral("hi"));
    EXPECT_EQ(items.at(1).value(QStringLiteral("bookmark_data")).toByteArray(), QByteArray("bm"));

    EXPECT_FALSE(db().deleteItem(idOf(items.at(0)), second)); // not that Drop Bar's item
    EXPECT_TRUE(db().deleteItem(idOf(items.at(0)), first));
    EXPECT_FALSE(db().deleteItem(idOf(items.at(0)), first)); // already gone

    ASSERT_TRUE(db().moveDropbar(first, other));
    EXPECT_EQ(db().gridIdForDropbar(first), other);
    EXPECT_EQ(db().getDropbarsForGrid(other).last().value(QStringLiteral("position")).toInt(), 1);
    ASSERT_TRUE(db().deleteDropbar(first));
    EXPECT_TRUE(db().getItemsForDropbar(first).isEmpty());
    EXPECT_EQ(db().getDropbarCountForGrid(other), 1);
    // A Drop Bar whose grid is gone has none.
    db().runQuery(QStringLiteral("DELETE FROM grids WHERE id = ?"), {other});
    EXPECT_EQ(db().gridIdForDropbar(foreign), 0);
}

// Separating an item moves it into a new Drop Bar, placed last in the grid.
TEST_F(GridDatabaseTest, SeparatingAnItemMakesANewDropbarLast)
{
    const DropbarId source = db().addDropbarWithTitle(QStringLiteral("Source"), {}, true, 1);
    const DropbarItemId first =
        db().addItemToDropbar(source, QStringLiteral("text"), {}, QStringLiteral("1"), {});
    const DropbarItemId second =
        db().addItemToDropbar(source, QStringLiteral("text"), {}, QStringLiteral("2"), {});
    const DropbarId other = db().addDropbarWithTitle(QStringLiteral("Other"), {}, false, 1);
    const DropbarItemId foreign =
        db().addItemToDropbar(other, QStringLiteral("text"), {}, QStringLiteral("x"), {});
    const auto count = [this] { return value(QStringLiteral("SELECT COUNT(*) FROM dropbars")); };

    // Refused: an item of another Drop Bar, a missing item, a missing grid.
    for (const auto& [item, grid] : {std::pair{foreign, 1LL}, {9999LL, 1LL}, {first, 4040LL}}) {
        EXPECT_EQ(db().separateItem(item, source, grid, QStringLiteral("T"), {}), 0) << item;
        EXPECT_EQ(count(), QStringLiteral("2"));
        EXPECT_EQ(db().getItemsForDropbar(source).size(), 2);
    }
    // A trigger makes the item update change nothing, as a concurrent delete would.
    db().runQuery(QStringLiteral("CREATE TRIGGER hold BEFORE UPDATE ON dropbar_items BEGIN SELECT "
                                 "RAISE(IGNORE); END"));
    EXPECT_EQ(db().separateItem(first, source, 1, QStringLiteral("T"), {}), 0);
    EXPECT_EQ(count(), QStringLiteral("2"));
    db().runQuery(QStringLiteral("DROP TRIGGER hold"));

    const DropbarId made =
        db().separateItem(first, source, 1, QStringLiteral("Split"), QByteArray("ic"));
    ASSERT_NE(made, 0);
    const SqlRows bars = db().getDropbarsForGrid(1);
    ASSERT_EQ(bars.size(), 3);
    EXPECT_EQ(idOf(bars.last()), made);
    EXPECT_EQ(bars.last().value(QStringLiteral("position")).toInt(), 2);
    EXPECT_EQ(bars.last().value(QStringLiteral("locked")).toInt(), 1); // inherited
    EXPECT_EQ(bars.last().value(QStringLiteral("title")).toString(), QStringLiteral("Split"));
    const SqlRows moved = db().getItemsForDropbar(made);
    ASSERT_EQ(moved.size(), 1);
    EXPECT_EQ(idOf(moved.first()), first);
    EXPECT_EQ(moved.first().value(QStringLiteral("position")).toInt(), 0);
    EXPECT_EQ(db().getItemsForDropbar(source).size(), 1);
    // The last item takes its Drop Bar along.
    ASSERT_NE(db().separateItem(second, source, 1, QStringLiteral("B"), {}), 0);
    EXPECT_EQ(value(QStringLiteral("SELECT COUNT(*) FROM dropbars WHERE id = %1").arg(source)),
              QStringLiteral("0"));
}

} // namespace

// --- The connection

TEST(SqliteConnectionTest, AFailedInnerScopeRollsTheWholeTransactionBack)
{
    SqliteConnection connection;
    ASSERT_TRUE(connection.open(QStringLiteral(":memory:"), true));
    ASSERT_TRUE(connection.execute(QStringLiteral("CREATE TABLE t (v INTEGER)")));
    auto insert = [&](int value) {
        return connection.update(QStringLiteral("INSERT INTO t VALUES (?)"), {value});
    };
    auto count = [&] {
        return connection.scalar(QStringLiteral("SELECT COUNT(*) FROM t"))->toInt();
    };
    struct Row {
        bool innerCommits;
        int rowsAfter;
    };
    for (const Row row : {Row{true, 3}, Row{false, 0}}) {
        ASSERT_TRUE(connection.execute(QStringLiteral("DELETE FROM t")));
        SqliteWriteTransaction outer(connection);
        ASSERT_TRUE(outer.ownsTransaction());
        insert(1);
        {
            SqliteWriteTransaction inner(connection);
            ASSERT_TRUE(inner.isActive());
            insert(2);
            if (row.innerCommits) {
                EXPECT_TRUE(inner.commit());
            }
        }
        // Nothing joins a transaction that can only roll back.
        if (!row.innerCommits) {
            EXPECT_FALSE(SqliteWriteTransaction(connection).isActive());
        }
        insert(3);
        EXPECT_EQ(outer.commit(), row.innerCommits);
        EXPECT_FALSE(connection.inTransaction());
        EXPECT_EQ(count(), row.rowsAfter) << row.innerCommits;
    }
}
