#include "tests/events/EventsTestSupport.h"

#include "actions/ActionFileParser.h"
#include "builtin/ActionInfo.h"
#include "store/GridDatabase.h"
#include "tasks/Task.h"
#include "tests/support/EventLoop.h"

#include <QDir>

namespace {

using namespace EventsTestActions;

ActionFilePtr sharingService(const QString& name, const QString& events)
{
    auto record = std::make_shared<ActionFile>();
    record->isSharingService = true;
    record->metaDataNotFound = false;
    record->actionName = record->sharingServiceName = name;
    record->taskPath = QStringLiteral("sharing:") + name;
    record->setHandles({DragTypes::Files, DragTypes::Text});
    if (!events.isEmpty()) {
        record->applyHeaderField(QStringLiteral("Events"), events);
    }
    return record;
}

ActionInfo builtIn(const QString& name, QList<ActionInfo::Handles> handles,
                   QList<ActionInfo::Event> events, const char* optionsNib)
{
    ActionInfo info;
    info.name = name;
    info.handles = std::move(handles);
    info.events = std::move(events);
    info.optionsNib = QString::fromLatin1(optionsNib);
    info.usesSelectedItemNameAndIcon = name == OpenFile;
    info.menuCategory = 1;
    return info;
}

// Writes the bundles into a resources folder of its own and registers the built-ins and
// sharing services, once for the whole program (before the parser is first used).
class EventsEnvironment : public testing::Environment {
public:
    void SetUp() override
    {
        m_previousResources = qgetenv("SKELVO_RESOURCES");
        qputenv("SKELVO_RESOURCES", m_home.path().toUtf8());
        ensureCoreApplication();
        const QString renaming =
            QStringLiteral("Handles: Files\n# Events: Dragged\n# OptionsNIB: ChooseFolderRename");
        const std::pair<QString, QString> bundles[] = {
            {Files,
             QStringLiteral("Handles: Files\n# KeyModifiers: Option, Command, Shift, Control")},
            {FilesAndText, QStringLiteral("Handles: Files, Text")},
            {ClicksOnly, QStringLiteral("Handles: Files\n# Events: Clicked")},
            {DragsOnly, QStringLiteral("Handles: Files\n# Events: Dragged")},
            {Invalid, {}},
            {RenameMove, renaming},
            {RenameCopy, renaming},
            {MoveFiles, QStringLiteral("Handles: Files\n# OptionsNIB: ChooseFolder")}};
        for (const auto& [name, lines] : bundles) {
            m_home.writeFile(
                QStringLiteral("Actions/%1.skbundle/action.rb").arg(name),
                QStringLiteral("# Skelvo Action Info\n# Name: %1\n# Description: d\n# %2\n%3")
                    .arg(name, lines.isEmpty() ? QStringLiteral("Handles: Files") : lines,
                         lines.isEmpty() ? QString() : QStringLiteral("# Creator: c\n# URL: u\n"))
                    .toUtf8());
        }
        using H = ActionInfo::Handles;
        using E = ActionInfo::Event;
        ActionFileParser& parser = ActionFileParser::shared();
        provideBuiltInActions(parser,
                              {builtIn(OpenFile, {H::Nothing}, {E::Clicked}, "ChooseFile"),
                               builtIn(RunAppleScript, {}, {}, "RunAppleScript"),
                               builtIn(ResizeImages, {H::Files}, {E::Dragged}, "ResizeImages")});
        parser.setSharingServiceProvider([] {
            return ActionFileList{sharingService(AirDrop, {}), sharingService(Email, {}),
                                  sharingService(ShareOnDrop, QStringLiteral("Dragged"))};
        });
        parser.invalidateActionsCache();
    }
    void TearDown() override
    {
        provideBuiltInActions(ActionFileParser::shared(), {});
        ActionFileParser::shared().setSharingServiceProvider({});
        qputenv("SKELVO_RESOURCES", m_previousResources);
    }

private:
    TestHome m_home;
    QByteArray m_previousResources;
};

[[maybe_unused]] testing::Environment* const environment =
    testing::AddGlobalTestEnvironment(new EventsEnvironment);

} // namespace

void EventsTest::SetUp()
{
    engine = std::make_unique<TestEngine>();
    ASSERT_TRUE(GridDatabase::sharedGridDatabase().loadDatabase());
    handler = std::make_unique<EventsHandler>((*engine)->taskContext, (*engine)->storeHooks);
    handler->setBuiltInDispatcher(builtIns);
    handler->setSharingServiceDispatcher(sharing);
    handler->setDropbarDispatcher(dropbars);
    Task::setRunnerStarter([this](Task& task) {
        started << QPointer<Task>(&task);
        return true;
    });
}

void EventsTest::TearDown()
{
    Task::setRunnerStarter({});
    settle();
    handler.reset();
    for (const QPointer<Task>& task : std::as_const(started)) {
        // Written but never handed to a runner: nobody else owns them.
        if (task && !task->taskRunner()) {
            delete task.data();
        }
    }
    engine.reset();
}

GridActionPtr EventsTest::store(const QString& type, const QString& path,
                                const GridActionVariables& variables)
{
    auto action = std::make_shared<GridAction>();
    action->type = action->name = type;
    action->categoryId =
        GridDatabase::sharedGridDatabase().getOrCreateFirstCategoryIdForSelectedGrid();
    action->extraVariables = variables;
    if (!path.isEmpty()) {
        action->extraVariables.insert(GridAction::PathVariable, path);
    }
    EXPECT_NE(action->create(), 0) << type.toStdString();
    return action;
}

GridActionPtr EventsTest::tile(ActionId id, const QString& type)
{
    auto action = std::make_shared<GridAction>();
    action->aId = id;
    action->type = type;
    action->name = type.isEmpty() ? QStringLiteral("Special") : type;
    return action;
}

QString EventsTest::makeFile(const QString& name)
{
    return engine->home().writeFile(QStringLiteral("files/") + name, "x");
}

QString EventsTest::makeFolder(const QString& name)
{
    const QString path = QDir(engine->home().path()).filePath(QStringLiteral("files/") + name);
    QDir().mkpath(path);
    return path;
}

void EventsTest::settle(int ms)
{
    for (int i = 0; i < 3; ++i) {
        QCoreApplication::sendPostedEvents();
        QCoreApplication::processEvents();
    }
    spin(ms);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

DragInfo EventsTest::files(const QStringList& paths)
{
    DragInfo drag;
    drag.formats = {QStringLiteral("text/uri-list")};
    drag.filePaths = paths;
    return drag;
}

DragInfo EventsTest::text(const QString& value)
{
    DragInfo drag;
    drag.formats = {QStringLiteral("text/plain")};
    drag.text = value;
    return drag;
}
