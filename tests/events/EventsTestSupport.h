#pragma once

#include "events/BuiltInDispatcher.h"
#include "events/DropbarDispatcher.h"
#include "events/EventsHandler.h"
#include "events/SharingServiceDispatcher.h"
#include "store/GridAction.h"
#include "tasks/FolderMonitorContext.h"
#include "tests/support/TestEngine.h"
#include "tests/support/TestHome.h"

#include <QList>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <gtest/gtest.h>
#include <memory>

class Task;

// The action folder every events test program scans (set up once, before the action parser
// is first used): bundles named after what they handle, and a runner.rb for real runs.
namespace EventsTestActions {
inline const QString Files = QStringLiteral("Files Action"); // files; all four modifiers
inline const QString Text = QStringLiteral("Text Action");   // text
inline const QString FilesAndText = QStringLiteral("Files And Text");
inline const QString ClicksOnly = QStringLiteral("Clicks Only");  // Events: Clicked
inline const QString DragsOnly = QStringLiteral("Drags Only");    // Events: Dragged
inline const QString Invalid = QStringLiteral("Invalid Action");  // no Creator line
inline const QString CopyToPath = QStringLiteral("Copy To Path"); // copies items into "path"
inline const QString RenameMove = QStringLiteral("Rename & Move Files");
inline const QString RenameCopy = QStringLiteral("Rename & Copy Files");
inline const QString MoveFiles = QStringLiteral("Move Files");
// Built-in records registered with the parser.
inline const QString OpenFile = QStringLiteral("Open File");
inline const QString RunAppleScript = QStringLiteral("Run AppleScript");
inline const QString ResizeImages = QStringLiteral("Resize Images");
// Sharing services registered with the parser.
inline const QString AirDrop = QStringLiteral("AirDrop");
inline const QString Email = QStringLiteral("Email");
inline const QString ShareOnDrop = QStringLiteral("Share On Drop"); // no clicks
} // namespace EventsTestActions

// Records the calls of the events handler's dispatch targets.
class FakeBuiltInDispatcher : public BuiltInDispatcher {
public:
    struct Call {
        QString kind; // "files", "text" or "click"
        GridActionPtr action;
        QList<QUrl> urls;
        QString text;
        QString keyModifier;
        std::shared_ptr<FolderMonitorContext> context;
        std::function<void()> completion;
    };
    void runActionWithDrag(const GridActionPtr& gridAction, const QList<QUrl>& draggedUrls,
                           const QString& keyModifier,
                           const std::shared_ptr<FolderMonitorContext>& context,
                           std::function<void()> completion) override
    {
        calls << Call{QStringLiteral("files"), gridAction, draggedUrls, {}, keyModifier, context,
                      std::move(completion)};
    }
    void runActionWithDrag(const GridActionPtr& gridAction, const QString& draggedText,
                           const QString& keyModifier, std::function<void()> completion) override
    {
        calls << Call{QStringLiteral("text"), gridAction, {}, draggedText, keyModifier, {},
                      std::move(completion)};
    }
    void runActionWithClick(const GridActionPtr& gridAction,
                            std::function<void()> completion) override
    {
        calls << Call{QStringLiteral("click"), gridAction, {}, {}, {}, {}, std::move(completion)};
    }
    QList<Call> calls;
};

class FakeSharingDispatcher : public SharingServiceDispatcher {
public:
    void shareItems(const GridAction& gridAction, const QStringList& filePaths,
                    std::function<void()> completion) override
    {
        shared << gridAction.name + QStringLiteral(": ") + filePaths.join(QLatin1Char('|'));
        completions << std::move(completion);
    }
    void shareText(const GridAction& gridAction, const QString& text) override
    {
        shared << gridAction.name + QStringLiteral(": text ") + text;
    }
    void handleClick(const GridAction& gridAction) override { clicks << gridAction.name; }

    QStringList shared;
    QList<std::function<void()>> completions;
    QStringList clicks;
};

class FakeDropbarDispatcher : public DropbarDispatcher {
public:
    struct Drop {
        DragInfo drag;
        DropbarId dropBarId;
        bool fromWithinSkelvo;
        bool delayPrepareGrid;
    };
    bool addItemsFromDrag(const DragInfo& drag, DropbarId dropBarId, bool fromWithinSkelvo,
                          bool delayPrepareGrid) override
    {
        drops << Drop{drag, dropBarId, fromWithinSkelvo, delayPrepareGrid};
        return addResult;
    }
    void handleClick(const GridAction& dropBarTile) override { clicks << dropBarTile.aId; }

    bool addResult = true;
    QList<Drop> drops;
    QList<ActionId> clicks;
};

class RecordingMonitorContext : public FolderMonitorContext {
public:
    void registerOutputAtPath(const QString& path) override { outputs << path; }
    void finish() override { ++finished; }
    QStringList outputs;
    int finished = 0;
};

// Each test: its own home with the shipped initial grid store, fake presenters and
// dispatch targets, a handler of its own, and tasks that are written but not started (each
// lands in `started`) unless the test asks for real runs.
class EventsTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Saves a tile of `type` in the first category; `path` becomes its "path" variable.
    GridActionPtr store(const QString& type, const QString& path = {},
                        const GridActionVariables& variables = {});
    // An unsaved special tile (Add to Grid, Drop Bars).
    static GridActionPtr tile(ActionId id, const QString& type = {});
    QString makeFile(const QString& relativePath, const QByteArray& contents = "x");
    QString makeFolder(const QString& relativePath);
    // Lets queued steps and timers run.
    static void settle(int ms = 0);
    // Real runner processes from here on.
    void useRealRunner();

    static DragInfo files(const QStringList& paths);
    static DragInfo text(const QString& value);

    std::unique_ptr<TestEngine> engine;
    TestHome* home = nullptr;
    std::shared_ptr<FakeBuiltInDispatcher> builtIns;
    std::shared_ptr<FakeSharingDispatcher> sharing;
    std::shared_ptr<FakeDropbarDispatcher> dropbars;
    std::unique_ptr<EventsHandler> handler;
    QList<QPointer<Task>> started;
};
