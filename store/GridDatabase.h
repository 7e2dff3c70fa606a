#pragma once

#include "core/Identifiers.h"
#include "store/SqliteConnection.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <functional>
#include <memory>
#include <optional>

class GridAction;
struct StoreContext;
using GridActionPtr = std::shared_ptr<GridAction>;
// An action's stored option values: each a QString, or a QByteArray for binary data.
using GridActionVariables = QVariantMap;

// The one store of the user's set-up: grids, their categories, the actions placed in them
// with their variables, and the Drop Bars of each grid with their items, in one SQLite file
// ("Actions5.skdb" in the support folder). Rows come back as maps keyed by column name
// (SQL NULL as a null marker); actions come back as GridAction records.
//
// Used from the main thread; one connection for the whole run. Every statement binds its
// arguments, except getNumActionsWithWhereClause(), whose clause comes from trusted code.
// Statement failures are logged and read as 0, false, none or an empty list.
//
// Durability: the file is opened with a rollback journal on network file systems and WAL
// elsewhere, synchronous FULL, a busy timeout, and every write in a BEGIN IMMEDIATE
// transaction, so `sk` and the application can write at once. A copy of the file is kept
// before a migration, and a damaged file is only replaced when the user says so.
class GridDatabase {
public:
    static inline const QString DatabaseFileName = QStringLiteral("Actions5.skdb");
    static inline const QString LegacyDatabaseFileName = QStringLiteral("Actions.skdb");
    static constexpr int CurrentVersion = 11;
    static constexpr int BusyTimeoutMilliseconds = 15000;

    // The shared store over the file in the support folder; creating it only fixes dbPath.
    static GridDatabase& sharedGridDatabase();
    // Closes the shared store and points it at the support folder of the moment (tests);
    // the new one keeps the context of the old.
    static void reopenShared();

    // A store over `dbPath`, copying in `initialDbPath` when there is no file.
    explicit GridDatabase(QString dbPath, QString initialDbPath = initialDatabaseResourcePath());
    ~GridDatabase();
    GridDatabase(const GridDatabase&) = delete;
    GridDatabase& operator=(const GridDatabase&) = delete;

    // What the store reports to and reads from, handed in by the engine (not owned); a
    // store must have one before it is used.
    void setContext(const StoreContext* context) { m_context = context; }
    const StoreContext& context() const;

    // The shipped initial database: in the resources, or in the build tree's generated ones.
    static QString initialDatabaseResourcePath();

    // --- Opening and life cycle
    QString dbPath() const { return m_dbPath; }
    bool isOpen() const { return m_connection.isOpen(); }
    bool loadDatabase();
    bool migrateDatabase();
    bool copyInInitalDb();
    void recreateDatabase();
    // Asks the user (asynchronously, on the main loop) whether to quit or recreate.
    void handleDBCorrupt();
    bool dbExists() const;
    bool requiredTablesExist();
    bool vacuum();
    SqlRows runQuery(const QString& sql, const QVariantList& arguments = {});
    // Makes the writes until its commit() one transaction: if any of them fails, none stays.
    SqliteWriteTransaction writeTransaction() { return SqliteWriteTransaction(m_connection); }
    bool didCopyInitialDb() const { return m_didCopyInitialDb; }
    QString journalMode(); // "wal" or "delete", as the open file reports it
    // Where the copy made before migrating from `version` is kept.
    QString backupPathForVersion(int version) const;
    // Called before each migration step with the version it leads to (crash tests).
    void setMigrationStepObserver(std::function<void(int toVersion)> observer);

    // --- Grids
    SqlRows getGrids();
    GridId addGridWithName(const QString& name);
    bool updateGrid(GridId gridId, const QString& name, int order);
    bool deleteGrid(GridId gridId);
    GridId selectedGridId();
    void setSelectedGridId(GridId gridId);
    std::optional<SqlRow> selectedGrid();
    double gridSizeForGrid(GridId gridId);
    bool setGridSize(double size, GridId gridId);
    double gridSizeForSelectedGrid();
    bool setGridSizeForSelectedGrid(double size);
    int numColsForGrid(GridId gridId); // 0: chosen automatically
    bool setNumCols(int numCols, GridId gridId);
    bool specialActionsVisibleForGrid(GridId gridId);
    bool setSpecialActionsVisible(bool visible, GridId gridId);
    bool gridSwitcherVisibleForGrid(GridId gridId);
    bool setGridSwitcherVisible(bool visible, GridId gridId);

    // --- Categories
    SqlRows getCategories();
    SqlRows categoriesForGrid(GridId gridId);
    CategoryId addCategoryWithName(const QString& name, GridId gridId);
    bool updateCategory(CategoryId categoryId, const QString& name);
    bool updateCategoryGridId(CategoryId categoryId, GridId gridId);
    bool updateCategoryDisplayOrder(CategoryId categoryId, int displayOrder);
    bool deleteCategory(CategoryId categoryId);
    CategoryId getFirstCategoryIdForSelectedGrid(); // "first" is the lowest id
    CategoryId getOrCreateFirstCategoryIdForSelectedGrid();
    CategoryId getActionsCategoryIdForSelectedGrid();
    CategoryId getAppsCategoryIdForSelectedGrid();
    CategoryId getFoldersCategoryIdForSelectedGrid();
    static QStringList folderActionNames();
    static QStringList coreFileActionNames();

    // --- Actions
    qint64 getNumActions();
    qint64 getNumActionsWithWhereClause(const QString& whereClause);
    qint64 getNumActionsForCategoryId(CategoryId categoryId);
    int getNextPositionForCategoryId(CategoryId categoryId);
    GridActionPtr getGridActionWithType(const QString& type);
    GridActionPtr getGridActionWithName(const QString& name);
    GridActionPtr getGridActionWithId(ActionId actionId);
    QList<GridActionPtr> getActionsForCategoryId(CategoryId categoryId);
    QList<GridActionPtr> getAllActions();
    bool hasAddedActionWithType(const QString& type);
    GridActionPtr gridActionFromRowDict(const SqlRow& row);
    ActionId addAction(const GridAction& action, const GridActionVariables& extraVariables);
    bool updateAction(const GridAction& action, const GridActionVariables& extraVariables);
    bool updateServicesKeyForActionId(ActionId actionId, const QString& servicesKey);
    bool moveAction(ActionId actionId, CategoryId categoryId, int position);
    bool deleteAction(ActionId actionId);

    // --- Action variables
    GridActionVariables getExtraVariablesForActionId(ActionId actionId);
    bool setExtraVariablesForActionId(ActionId actionId, const GridActionVariables& variables);
    bool deleteExtraVariablesForActionId(ActionId actionId);
    QList<QByteArray> getScopedBookmarks();

    // --- Drop Bars and their items
    SqlRows getDropbarsForGrid(GridId gridId);
    DropbarId addDropbarWithTitle(const QString& title, const QByteArray& icon, bool locked,
                                  GridId gridId);
    bool updateDropbar(DropbarId dropbarId, const QString& title, const QString& name,
                       const QByteArray& icon, bool locked);
    bool updateDropbarPositions(const QList<DropbarId>& dropbarIds, GridId gridId);
    bool deleteDropbar(DropbarId dropbarId);
    bool moveDropbar(DropbarId dropbarId, GridId gridId);
    qint64 getDropbarCountForGrid(GridId gridId);
    SqlRows getItemsForDropbar(DropbarId dropbarId);
    DropbarItemId addItemToDropbar(DropbarId dropbarId, const QString& type,
                                   const QByteArray& bookmarkData, const QString& textContent,
                                   const QString& textFilePath);
    bool deleteItemsForDropbar(DropbarId dropbarId);
    // Items are rows with "type", "bookmark_data", "text_content" and "text_file_path".
    bool replaceItemsForDropbar(DropbarId dropbarId, const SqlRows& items);
    // Appends the item rows in their order, in one transaction; their ids, or none on failure.
    QList<DropbarItemId> addItemsToDropbar(DropbarId dropbarId, const SqlRows& items);
    SqlRows getAllDropbarItems(); // of every grid, for the clean-up of temporary files
    bool deleteItem(DropbarItemId itemId, DropbarId dropbarId);
    DropbarId separateItem(DropbarItemId itemId, DropbarId dropbarId, GridId gridId,
                           const QString& title, const QByteArray& icon);
    GridId gridIdForDropbar(DropbarId dropbarId); // 0 for an orphaned Drop Bar

private:
    const StoreContext* m_context = nullptr;
    bool openConnection();
    void configureConnection();
    bool backUpBeforeMigration(int version);
    bool runStep(const QString& sql, const QVariantList& arguments, bool schema);
    qint64 integerOf(const QString& sql, const QVariantList& arguments, qint64 fallback);
    qint64 nextOrder(const QString& sql, const QVariantList& arguments);
    bool insertItems(DropbarId dropbarId, const SqlRows& items, qint64 firstPosition,
                     QList<DropbarItemId>* ids = nullptr);
    bool write(const std::function<bool()>& body);
    bool deleteActionRow(ActionId actionId);
    bool readsAsVisible(const QString& sql, GridId gridId);
    CategoryId placementCategory(const QString& sql);
    QList<GridActionPtr> actionsFrom(const QString& sql, const QVariantList& arguments);

    QString m_dbPath;
    QString m_initialDbPath;
    SqliteConnection m_connection;
    bool m_didCopyInitialDb = false;
    bool m_vacuumPending = false;
    std::function<void(int)> m_migrationStepObserver;
};
