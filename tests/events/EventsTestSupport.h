#pragma once

#include "events/BuiltInDispatcher.h"
#include "events/DropbarDispatcher.h"
#include "events/EventsHandler.h"
#include "events/SharingServiceDispatcher.h"
#include "store/GridAction.h"
#include "tasks/FolderMonitorContext.h"
#include "tests/support/TestEngine.h"

#include <QPointer>
#include <QUrl>

#include <gtest/gtest.h>

class Task;

// The actions every events test program finds: bundles named after what they handle,
// built-in records and sharing services.
namespace EventsTestActions {
inline const QString Files = QStringLiteral("Files Action"); // files; all four modifiers
inline const QString FilesAndText = QStringLiteral("Files And Text");
inline const QString ClicksOnly = QStringLiteral("Clicks Only");
inline const QString DragsOnly = QStringLiteral("Drags Only");
inline const QString Invalid = QStringLiteral("Invalid Action"); // no Creator line
inline const QString RenameMove = QStringLiteral("Rename & Move Files");
inline const QString RenameCopy = QStringLiteral("Rename & Copy Files");
inline const QString MoveFiles = QStringLiteral("Move Files");
inline const QString OpenFile = QStringLiteral("Open File");
inline const QString RunAppleScript = QStringLiteral("Run AppleScript");
inline const QString ResizeImages = QStringLiteral("Resize Images");
inline const QString AirDrop = QStringLiteral("AirDrop");
inline const QString Email = QStringLiteral("Email");
inline const QString ShareOnDrop = QStringLiteral("Share On Drop"); // no clicks
} // namespace EventsTestActions

// Records what the handler hands to the built-in runner, the sharing services and the Drop
// Bars.
class FakeBuiltInDispatcher : public BuiltInDispatcher {
public:
    struct Call {
        QString kind; // "files", "text" or "click"
        ActionId id;
        QList<QUrl> urls;
        std::shared_ptr<FolderMonitorContext> context;
        std::function<void()> completion;
    };
    void runActionWithDrag(const GridActionPtr& action, const QList<QUrl>& urls, const QString&,
                           const std::shared_ptr<FolderMonitorContext>& context,
                           std::function<void()> completion) override
    {
        calls << Call{QStringLiteral("files"), action->aId, urls, context, std::move(completion)};
    }
    void runActionWithDrag(const GridActionPtr& action, const QString&, const QString&,
                           std::function<void()> completion) override
    {
        calls << Call{QStringLiteral("text"), action->aId, {}, {}, std::move(completion)};
    }
    void runActionWithClick(const GridActionPtr& action, std::function<void()> completion) override
    {
        calls << Call{QStringLiteral("click"), action->aId, {}, {}, std::move(completion)};
    }
    QList<Call> calls;
};

class FakeSharingDispatcher : public SharingServiceDispatcher {
public:
    void shareItems(const GridAction& action, const QStringList& paths,
                    std::function<void()> completion) override
    {
        shared << action.name + QStringLiteral(": ") + paths.join(u'|');
        completions << std::move(completion);
    }
    void shareText(const GridAction& action, const QString& text) override
    {
        shared << action.name + QStringLiteral(": text ") + text;
    }
    void handleClick(const GridAction& action) override { clicks << action.name; }

    QStringList shared;
    QList<std::function<void()>> completions;
    QStringList clicks;
};

class FakeDropbarDispatcher : public DropbarDispatcher {
public:
    struct Drop {
        DropbarId dropBarId;
        bool fromWithinSkelvo;
        bool delayPrepareGrid;
    };
    bool addItemsFromDrag(const DragInfo&, DropbarId id, bool fromWithinSkelvo,
                          bool delayPrepareGrid) override
    {
        drops << Drop{id, fromWithinSkelvo, delayPrepareGrid};
        return addResult;
    }
    void handleClick(const GridAction& tile) override { clicks << tile.aId; }

    bool addResult = true;
    QList<Drop> drops;
    QList<ActionId> clicks;
};

class RecordingMonitorContext : public FolderMonitorContext {
public:
    void registerOutputAtPath(const QString&) override {}
    void finish() override { ++finished; }
    int finished = 0;
};

// Each test: its own engine and home with the shipped initial grid store, a handler with
// fake dispatch targets, and tasks that are written but not started (each lands in
// `started`).
class EventsTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Saves a tile of `type` in the first category; `path` becomes its "path" variable.
    GridActionPtr store(const QString& type, const QString& path = {},
                        const GridActionVariables& variables = {});
    // An unsaved special tile (Add to Grid, Drop Bars).
    static GridActionPtr tile(ActionId id, const QString& type = {});
    QString makeFile(const QString& name);
    QString makeFolder(const QString& name);
    // Lets queued steps and timers run.
    static void settle(int ms = 0);
    static DragInfo files(const QStringList& paths);
    static DragInfo text(const QString& value);
    FakeWindowPresenter& windows() { return engine->windows(); }

    std::unique_ptr<TestEngine> engine;
    std::shared_ptr<FakeBuiltInDispatcher> builtIns = std::make_shared<FakeBuiltInDispatcher>();
    std::shared_ptr<FakeSharingDispatcher> sharing = std::make_shared<FakeSharingDispatcher>();
    std::shared_ptr<FakeDropbarDispatcher> dropbars = std::make_shared<FakeDropbarDispatcher>();
    std::unique_ptr<EventsHandler> handler;
    QList<QPointer<Task>> started;
};
