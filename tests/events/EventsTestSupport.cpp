#include "tests/events/EventsTestSupport.h"

#include "actions/ActionFileParser.h"
#include "builtin/ActionInfo.h"
#include "core/Settings.h"
#include "store/GridDatabase.h"
#include "store/GridStoreHooks.h"
#include "tasks/Task.h"
#include "tests/support/EventLoop.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>

namespace {

// Reads the task description the way the shipped runner does, loads the action's script and
// calls its function for the event; a returned text becomes the run's text result.
const char* const TestRunner = R"RUBY(
description = File.read(ARGV[0])
action = description[/\AACTION: "(.*)"$/, 1]
event = description[/^EVENT: "(.*)"$/, 1]
variables = {}
description.scan(/^VARIABLE: "(.*?)" "(.*)"$/) { |key, value| variables[key] = value.gsub('\"', '"') }
items_line = description[/^ITEMS: (.*)\z/, 1]
items = items_line ? items_line.scan(/"((?:[^"\\]|\\.)*)"/).flatten.map { |item| item.gsub('\"', '"') } : []
load(File.directory?(action) ? File.join(action, "action.rb") : action)
$stdout.sync = true
result = event == "clicked" ? clicked(variables) : dragged(items, variables)
if result
  print "Text: #{result}\n"
  STDIN.gets
end
)RUBY";

const char* const CopyToPathScript = R"RUBY(
require "fileutils"
def dragged(items, variables)
  items.each { |item| FileUtils.cp(item, variables["path"]) }
  File.write(File.join(variables["path"], "variables.txt"),
             variables.sort.map { |key, value| "#{key}=#{value}\n" }.join)
  "copied #{items.size}"
end
def clicked(variables)
  File.write(File.join(variables["path"], "clicked.txt"), "clicked")
  "clicked"
end
)RUBY";

// Renames into the folder in "path" with the names from the prompt.
const char* const RenameScript = R"RUBY(
require "fileutils"
def dragged(items, variables)
  items.each_with_index do |item, index|
    FileUtils.cp(item, File.join(variables["path"], variables["RENAMED_FILENAME_#{index}"]))
  end
  "renamed #{items.size}"
end
)RUBY";

QByteArray header(const QString& name, const QString& lines)
{
    return QStringLiteral("# Skelvo Action Info\n# Name: %1\n# Description: For the tests\n%2\n")
        .arg(name, lines)
        .toUtf8();
}

void writeBundle(const QString& actionsFolder, const QString& name, const QString& lines,
                 const QByteArray& script = "def dragged(items, variables); end\n"
                                            "def clicked(variables); end\n")
{
    const QString folder = QDir(actionsFolder).filePath(name + QStringLiteral(".skbundle"));
    QDir().mkpath(folder);
    QFile file(QDir(folder).filePath(QStringLiteral("action.rb")));
    if (file.open(QIODevice::WriteOnly)) {
        file.write(header(name, lines) + "\n" + script);
    }
}

ActionFilePtr sharingService(const QString& name, const QString& events)
{
    auto record = std::make_shared<ActionFile>();
    record->isSharingService = true;
    record->metaDataNotFound = false;
    record->actionName = name;
    record->sharingServiceName = name;
    record->taskPath = QStringLiteral("sharing:") + name;
    record->setHandles({DragTypes::Files, DragTypes::Text});
    if (!events.isEmpty()) {
        record->applyHeaderField(QStringLiteral("Events"), events);
    }
    return record;
}

class EventsEnvironment : public testing::Environment {
public:
    void SetUp() override
    {
        m_home = std::make_unique<TestHome>();
        m_previousResources = qgetenv("SKELVO_RESOURCES");
        const QString resources = QDir(m_home->path()).filePath(QStringLiteral("resources"));
        qputenv("SKELVO_RESOURCES", resources.toUtf8());
        ensureCoreApplication();

        const QString actions = QDir(resources).filePath(QStringLiteral("Actions"));
        m_home->writeFile(QStringLiteral("resources/Actions/lib/runner.rb"), TestRunner);
        const QString valid = QStringLiteral("# Creator: tests\n# URL: https://example.org\n");
        using namespace EventsTestActions;
        writeBundle(actions, Files,
                    valid +
                        QStringLiteral(
                            "# Handles: Files\n# KeyModifiers: Option, Command, Shift, Control"));
        writeBundle(actions, Text, valid + QStringLiteral("# Handles: Text"));
        writeBundle(actions, FilesAndText, valid + QStringLiteral("# Handles: Files, Text"));
        writeBundle(actions, ClicksOnly,
                    valid + QStringLiteral("# Handles: Files\n# Events: Clicked"));
        writeBundle(actions, DragsOnly,
                    valid + QStringLiteral("# Handles: Files\n# Events: Dragged"));
        writeBundle(actions, Invalid,
                    QStringLiteral("# Handles: Files\n# URL: https://example.org"));
        writeBundle(actions, CopyToPath, valid + QStringLiteral("# Handles: Files, Text"),
                    CopyToPathScript);
        writeBundle(actions, RenameMove,
                    valid + QStringLiteral("# Handles: Files\n# Events: Dragged\n"
                                           "# OptionsNIB: ChooseFolderRename"),
                    RenameScript);
        writeBundle(actions, RenameCopy,
                    valid + QStringLiteral("# Handles: Files\n# Events: Dragged\n"
                                           "# OptionsNIB: ChooseFolderRename"),
                    RenameScript);
        writeBundle(actions, MoveFiles,
                    valid + QStringLiteral("# Handles: Files\n# OptionsNIB: ChooseFolder"));

        ActionInfo openFile;
        openFile.name = OpenFile;
        openFile.handles = {ActionInfo::Handles::Nothing};
        openFile.events = {ActionInfo::Event::Clicked};
        openFile.optionsNib = QStringLiteral("ChooseFile");
        openFile.usesSelectedItemNameAndIcon = true;
        openFile.menuCategory = 1;
        ActionInfo appleScript;
        appleScript.name = RunAppleScript;
        appleScript.optionsNib = QStringLiteral("RunAppleScript");
        appleScript.menuCategory = 1;
        ActionInfo resize;
        resize.name = ResizeImages;
        resize.handles = {ActionInfo::Handles::Files};
        resize.events = {ActionInfo::Event::Dragged};
        resize.optionsNib = QStringLiteral("ResizeImages");
        resize.menuCategory = 1;
        ActionFileParser& parser = ActionFileParser::shared();
        provideBuiltInActions(parser, {openFile, appleScript, resize});
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
        ActionFileParser::shared().invalidateActionsCache();
        qputenv("SKELVO_RESOURCES", m_previousResources);
        m_home.reset();
    }

private:
    std::unique_ptr<TestHome> m_home;
    QByteArray m_previousResources;
};

[[maybe_unused]] testing::Environment* const environment =
    testing::AddGlobalTestEnvironment(new EventsEnvironment);

} // namespace

void EventsTest::SetUp()
{
    engine = std::make_unique<TestEngine>();
    home = &engine->home();
    ASSERT_TRUE(GridDatabase::sharedGridDatabase().loadDatabase());
    builtIns = std::make_shared<FakeBuiltInDispatcher>();
    sharing = std::make_shared<FakeSharingDispatcher>();
    dropbars = std::make_shared<FakeDropbarDispatcher>();
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
    home = nullptr;
    engine.reset();
}

void EventsTest::useRealRunner()
{
    Task::setRunnerStarter({});
}

GridActionPtr EventsTest::store(const QString& type, const QString& path,
                                const GridActionVariables& variables)
{
    auto action = std::make_shared<GridAction>();
    action->type = type;
    action->name = type;
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

QString EventsTest::makeFile(const QString& relativePath, const QByteArray& contents)
{
    return home->writeFile(QStringLiteral("files/") + relativePath, contents);
}

QString EventsTest::makeFolder(const QString& relativePath)
{
    const QString path = QDir(home->path()).filePath(QStringLiteral("files/") + relativePath);
    QDir().mkpath(path);
    return path;
}

void EventsTest::settle(int ms)
{
    for (int i = 0; i < 3; ++i) {
        QCoreApplication::sendPostedEvents();
        QCoreApplication::processEvents();
    }
    if (ms > 0) {
        spin(ms);
    }
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
