#pragma once

#include "core/NotificationCenter.h"
#include "core/SecretStore.h"
#include "store/GridAction.h"
#include "store/GridDatabase.h"
#include "tests/support/TestEngine.h"

#include <QString>
#include <QStringList>

#include <gtest/gtest.h>
#include <memory>

// Builds a database file as it looked at a schema version, with some rows in it: categories
// 1 "Default Actions", 2 "Installed Actions" and 3 "My Apps Folder", actions in them with
// variables, and from version 4 on a grid (from version 10 on, a Drop Bar with items).
void createDatabaseAtVersion(const QString& path, int version);

// "table.column TYPE|default" of every column, sorted, for comparing schemas.
QStringList schemaOf(const QString& path);

// Runs the statement on its own connection and returns the first column of every row.
QStringList sqlColumn(const QString& path, const QString& sql);
QString sqlValue(const QString& path, const QString& sql);

// Counts one notification while alive.
class NotificationCount {
public:
    NotificationCount(NotificationCenter& center, const QString& name)
        : m_center(center)
        , m_token(center.addObserver(name, nullptr, [this](const Notification&) { ++count; }))
    {}
    ~NotificationCount() { m_center.removeObserver(m_token); }
    NotificationCount(const NotificationCount&) = delete;
    NotificationCount& operator=(const NotificationCount&) = delete;
    int count = 0;

private:
    NotificationCenter& m_center;
    int m_token;
};

// Lets queued steps (alerts, grid rebuilds) run.
void processEvents();

// The secret calls of the file store answer before they return; these hand the answer back.
bool storePassword(GridAction& action, const QString& password, bool secondary = false);
std::optional<QMap<QString, QString>> retrievePassword(const GridAction& action, bool showErrors,
                                                       bool base64Encoded, bool secondary = false);

// Each test gets its own engine and home and the shared store over "Actions5.skdb" in the
// home's support folder, loaded from the shipped initial database unless `load` is false.
class StoreTest : public testing::Test {
protected:
    explicit StoreTest(bool load = true)
        : m_load(load)
    {}
    void SetUp() override;
    void TearDown() override;

    GridDatabase& db() { return GridDatabase::sharedGridDatabase(); }
    QString supportPath(const QString& relative) const;
    QString dbPath() const { return supportPath(GridDatabase::DatabaseFileName); }
    QString value(const QString& sql) const { return sqlValue(dbPath(), sql); }
    QStringList column(const QString& sql) const { return sqlColumn(dbPath(), sql); }
    // Loads the shipped initial database (one grid, categories Actions, Apps and Folders).
    void loadInitialDatabase();
    // Presents `folder` as mounted from a file system of `type` (cifs, nfs4...).
    void mountAs(const QString& folder, const char* type);

    Engine& engine() { return m_engine->engine(); }
    const QList<Alert>& alerts() { return m_engine->alerts().alerts; }

    std::unique_ptr<TestEngine> m_engine;

private:
    bool m_load;
};
