#pragma once

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

// Column name -> "TYPE|default" of every table, for comparing schemas.
QMap<QString, QMap<QString, QString>> schemaOf(const QString& path);

// Runs the statement on its own connection and returns the first column of every row.
QStringList sqlColumn(const QString& path, const QString& sql);
QString sqlValue(const QString& path, const QString& sql);

// Points the mount table at a prepared file while alive.
class FileSystemInfoOverride {
public:
    explicit FileSystemInfoOverride(const QString& mountInfo);
    ~FileSystemInfoOverride();
    FileSystemInfoOverride(const FileSystemInfoOverride&) = delete;
    FileSystemInfoOverride& operator=(const FileSystemInfoOverride&) = delete;
};

// Lets queued steps (alerts, grid rebuilds) run.
void processEvents();

// The secret calls of the file store answer before they return; these hand the answer back.
bool storePassword(GridAction& action, const QString& password, bool secondary = false);
std::optional<QMap<QString, QString>> retrievePassword(const GridAction& action, bool showErrors,
                                                       bool base64Encoded, bool secondary = false);
SecretStore::Result readSecretNow(SecretStore& store, const QString& service,
                                  const QString& account);

// Each test gets its own home, fake presenters and a fresh shared store over
// "Actions5.skdb" in the home's support folder.
class StoreTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    GridDatabase& db() { return GridDatabase::sharedGridDatabase(); }
    QString supportPath(const QString& relative) const;
    QString dbPath() const;
    // Loads the shipped initial database (one grid, categories Actions, Apps and Folders).
    void loadInitialDatabase();

    Engine& engine() { return m_engine->engine(); }

    std::unique_ptr<TestEngine> m_engine;
};
