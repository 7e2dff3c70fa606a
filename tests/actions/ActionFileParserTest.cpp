#include "actions/ActionFileParser.h"

#include "actions/DevelopActionController.h"
#include "actions/OptionSheets.h"
#include "builtin/ActionInfo.h"
#include "core/Settings.h"
#include "core/SupportPaths.h"
#include "tests/support/TestEngine.h"
#include "tests/support/TestHome.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

ActionFile parse(const QString& text)
{
    ActionFile record;
    ActionFileParser::parseHeader(text, record);
    return record;
}

const char* const CompleteHeader = "#!/usr/bin/env ruby\n"
                                   "# Skelvo Action Info\n"
                                   "# Name: Upload\n"
                                   "# Description: Sends files\n"
                                   "# Handles: Files\n"
                                   "# Creator: Someone\n"
                                   "# URL: https://example.org\n"
                                   "\n"
                                   "def dragged; end\n";

QByteArray header(const QString& name, const QString& extra = {})
{
    return QStringLiteral("# Skelvo Action Info\n# Name: %1\n# Description: d\n# Handles: Files\n"
                          "# Creator: c\n# URL: u\n%2\nputs 1\n")
        .arg(name, extra)
        .toUtf8();
}

// A parser over folders of a private home, with fake alerts and windows.
class ParserTest : public ::testing::Test {
protected:
    QString internalDir() const { return QDir(home.path()).filePath(QStringLiteral("internal")); }
    QString userDir() const { return QDir(home.path()).filePath(QStringLiteral("user")); }

    QString addBundle(const QString& folder, const QString& bundle, const QByteArray& script,
                      const QString& scriptName = QStringLiteral("action.rb"))
    {
        const QString path = QDir(folder).filePath(bundle);
        QDir().mkpath(path);
        QFile file(QDir(path).filePath(scriptName));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(script);
        return path;
    }
    QString addFile(const QString& folder, const QString& name, const QByteArray& script)
    {
        QDir().mkpath(folder);
        QFile file(QDir(folder).filePath(name));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(script);
        return file.fileName();
    }

    ParserTest() { parser.setPresenters(&engine->alerts, &engine->windows); }

    TestEngine engine;
    TestHome& home = engine.home();
    ActionFileParser parser{internalDir(), userDir()};
};

} // namespace

TEST(HeaderGrammar, ValueIsOnlyTheSecondPieceAndKeyLosesTwoCharacters)
{
    const ActionFile r = parse(QStringLiteral("# Skelvo Action Info\n"
                                              "# Description: Note: slow\n"
                                              "#:Name: Colon\n"
                                              "## Creator: Jane Doe\n"
                                              "# URL no separator here\n"));
    EXPECT_FALSE(r.metaDataNotFound);
    EXPECT_EQ(r.actionDescription, QStringLiteral("Note"));
    // Whatever the first two characters are, they go: "#:Name" is the Name key...
    EXPECT_EQ(r.actionName, QStringLiteral("Colon"));
    // ...and "## Creator" is the unknown key " Creator".
    EXPECT_TRUE(r.creator.isEmpty());
    EXPECT_TRUE(r.url.isEmpty());

    const ActionFile keyed =
        parse(QStringLiteral("# Skelvo Action Info\nxxCreator:   Jane Doe  \t\n"));
    EXPECT_EQ(keyed.creator, QStringLiteral("Jane Doe"));
}

TEST(HeaderGrammar, OpeningLineMustMatchExactly)
{
    EXPECT_TRUE(parse(QStringLiteral("# Skelvo Action Info\r\n# Name: A\r\n")).metaDataNotFound);
    EXPECT_TRUE(parse(QStringLiteral("# Skelvo Action Info \n# Name: A\n")).metaDataNotFound);
    EXPECT_TRUE(parse(QStringLiteral("  # Skelvo Action Info\n# Name: A\n")).metaDataNotFound);
    const ActionFile destination =
        parse(QStringLiteral("x = 1\n# Skelvo Destination Info\n# Name: A\n"));
    EXPECT_FALSE(destination.metaDataNotFound);
    EXPECT_EQ(destination.actionName, QStringLiteral("A"));
    // Lines before the opening line carry no fields.
    EXPECT_TRUE(
        parse(QStringLiteral("# Name: Early\n# Skelvo Action Info\n")).actionName.isEmpty());
}

TEST(HeaderGrammar, HeaderEndsAtFirstBlankLineOrRunsToTheEnd)
{
    EXPECT_TRUE(parse(QStringLiteral("# Skelvo Action Info\n# Creator: c\n \t \n# Name: Late\n"))
                    .actionName.isEmpty());
    EXPECT_TRUE(parse(QStringLiteral("# Skelvo Action Info\n# Creator: c\n\r\n# Name: Late\n"))
                    .actionName.isEmpty());
    // Without a blank line every later line with ": " is read as a field.
    const ActionFile r =
        parse(QStringLiteral("# Skelvo Action Info\n# Name: A\nx Version: 9\nx = {URL: 1}\n"));
    EXPECT_EQ(r.actionName, QStringLiteral("A"));
    EXPECT_EQ(r.version, QStringLiteral("9"));
    EXPECT_TRUE(r.url.isEmpty());
}

TEST(HeaderGrammar, LaterKeysOverwriteListsAppend)
{
    const ActionFile r =
        parse(QStringLiteral("# Skelvo Action Info\n# Name: First\n# Name: Second\n"
                             "# Events: Clicked\n# Events: Dragged , TestConnection\n"
                             "# KeyModifiers: Option\n# KeyModifiers: Shift\n"
                             "# Handles: Files\n# Handles: Text\n"));
    EXPECT_EQ(r.actionName, QStringLiteral("Second"));
    EXPECT_EQ(r.events, (QStringList{QStringLiteral("Clicked"), QStringLiteral("Dragged"),
                                     QStringLiteral("TestConnection")}));
    EXPECT_EQ(r.enabledKeyModifiers,
              (QStringList{QStringLiteral("Option"), QStringLiteral("Shift")}));
    EXPECT_EQ(r.handles(), QStringList{DragTypes::Text});
}

TEST(HeaderGrammar, YesNoIsLenient)
{
    struct Row {
        const char* value;
        bool expected;
    };
    for (const Row& row : {Row{"No", false}, Row{"no", false}, Row{"NO", false}, Row{"false", true},
                           Row{"0", true}, Row{"Yes", true}, Row{"", true}, Row{"nope", true}}) {
        const ActionFile r =
            parse(QStringLiteral("# Skelvo Action Info\n# RunsSandboxed: %1\n# SkipConfig: %1\n"
                                 "# SkipValidation: %1\n# ForceX86Ruby: %1\n"
                                 "# UseSelectedItemNameAndIcon: %1\n")
                      .arg(QString::fromLatin1(row.value)));
        EXPECT_EQ(r.runsSandboxed, row.expected) << row.value;
        EXPECT_EQ(r.skipConfig, row.expected) << row.value;
        EXPECT_EQ(r.skipValidation, row.expected) << row.value;
        EXPECT_EQ(r.forceX86Ruby, row.expected) << row.value;
        EXPECT_EQ(r.useSelectedItemNameAndIcon, row.expected) << row.value;
    }
    const ActionFile defaults = parse(QStringLiteral("# Skelvo Action Info\n# Name: A\n"));
    EXPECT_TRUE(defaults.runsSandboxed);
    EXPECT_FALSE(defaults.skipConfig);
}

TEST(HeaderGrammar, HandlesMapsKnownPiecesAndDropsTheRest)
{
    struct Row {
        const char* value;
        QStringList expected;
    };
    const Row rows[] = {
        {"Files, Text", {DragTypes::Files, DragTypes::Text}},
        {"NSStringPboardType,NSFilenamesPboardType", {DragTypes::Text, DragTypes::Files}},
        {"Files, Images, Files", {DragTypes::Files}},
        {"files", {DragTypes::None}},
        {"TEXT", {DragTypes::None}},
        {"", {DragTypes::None}},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(parse(QStringLiteral("# Skelvo Action Info\n# Handles: %1\n")
                            .arg(QString::fromLatin1(row.value)))
                      .handles(),
                  row.expected)
            << row.value;
    }
}

TEST(HeaderGrammar, EveryKeyIsStored)
{
    const ActionFile r = parse(QStringLiteral(
        "# Skelvo Action Info\n# Name: N\n# Description: one\\ntwo\n# Creator: C\n# URL: U\n"
        "# IconURL: I\n# OptionsNIB: ExtendedLogin\n# OptionsTitle: T\n# DefaultPort: 22\n"
        "# UniqueID: ID\n# Version: 1.2\n# MinSkelvoVersion: 4.0\n# RubyPath: /r\n# PythonPath: "
        "/p\n"
        "# AuthScope: S\n# Unknown: whatever\n"));
    EXPECT_EQ(r.actionName, QStringLiteral("N"));
    EXPECT_EQ(r.actionDescription, QStringLiteral("one\ntwo"));
    EXPECT_EQ(r.creator, QStringLiteral("C"));
    EXPECT_EQ(r.url, QStringLiteral("U"));
    EXPECT_EQ(r.iconUrl, QStringLiteral("I"));
    EXPECT_EQ(r.optionsNib, QStringLiteral("ExtendedLogin"));
    EXPECT_EQ(r.optionsTitle, QStringLiteral("T"));
    EXPECT_EQ(r.defaultPort, QStringLiteral("22"));
    EXPECT_EQ(r.uniqueID, QStringLiteral("ID"));
    EXPECT_EQ(r.version, QStringLiteral("1.2"));
    EXPECT_EQ(r.minSkelvoVersion, QStringLiteral("4.0"));
    EXPECT_EQ(r.rubyPath, QStringLiteral("/r"));
    EXPECT_EQ(r.pythonPath, QStringLiteral("/p"));
    EXPECT_EQ(r.authScope, QStringLiteral("S"));
}

TEST(Queries, EventsDefaultToClicksAndDrags)
{
    const ActionFile none = parse(QStringLiteral("# Skelvo Action Info\n# Handles: Files, Text\n"));
    EXPECT_TRUE(none.handlesClicked());
    EXPECT_TRUE(none.handlesDragged());
    EXPECT_FALSE(none.handlesTestConnection());
    EXPECT_FALSE(none.handlesAuthorize());
    EXPECT_TRUE(none.handlesFilesDragType());
    EXPECT_EQ(none.handlesString(), QStringLiteral("Files & Text"));

    const ActionFile clicks = parse(
        QStringLiteral("# Skelvo Action Info\n# Handles: Files\n# Events: CLICKED, authorize\n"));
    EXPECT_TRUE(clicks.handlesClicked());
    EXPECT_FALSE(clicks.handlesDragged());
    EXPECT_TRUE(clicks.handlesAuthorize());
    EXPECT_FALSE(clicks.handlesFilesDragType());
    EXPECT_EQ(clicks.handlesString(), QStringLiteral("Clicks"));

    const ActionFile empty = parse(QStringLiteral("# Skelvo Action Info\n# Events: \n"));
    EXPECT_TRUE(empty.eventsDefined);
    EXPECT_FALSE(empty.handlesClicked());
    EXPECT_FALSE(empty.handlesDragged());

    EXPECT_EQ(
        parse(QStringLiteral(
                  "# Skelvo Action Info\n# Handles: Text\n# Events: Dragged, TestConnection\n"))
            .handlesString(),
        QStringLiteral("Text"));
    EXPECT_EQ(parse(QStringLiteral("# Skelvo Action Info\n# Handles: Files\n")).handlesString(),
              QStringLiteral("Files"));
    EXPECT_EQ(parse(QStringLiteral("# Skelvo Action Info\n# Events: Dragged\n")).handlesString(),
              QStringLiteral("Clicks"));
}

TEST(Queries, KeyModifiersOnlyWhenDeclared)
{
    const ActionFile none = parse(QStringLiteral("# Skelvo Action Info\n"));
    EXPECT_FALSE(none.optionKeyModifierEnabled());
    const ActionFile some =
        parse(QStringLiteral("# Skelvo Action Info\n# KeyModifiers: OPTION, Control\n"));
    EXPECT_TRUE(some.optionKeyModifierEnabled());
    EXPECT_TRUE(some.controlKeyModifierEnabled());
    EXPECT_FALSE(some.commandKeyModifierEnabled());
    EXPECT_FALSE(some.shiftKeyModifierEnabled());
}

TEST(Queries, OptionSheetsDecideKeychainAndConstants)
{
    OptionSheets::registerSheet({QStringLiteral("TestLogin"),
                                 true,
                                 QStringLiteral("password"),
                                 {{QStringLiteral("service"), QStringLiteral("x")}},
                                 {}});
    ActionFile r = parse(QStringLiteral("# Skelvo Action Info\n# OptionsNIB: TestLogin\n"));
    EXPECT_TRUE(r.optionsNibExists());
    EXPECT_TRUE(r.optionsNibNeedsKeychain());
    EXPECT_EQ(r.keychainPasswordKey(), QStringLiteral("password"));
    EXPECT_EQ(r.constantVariables().value(QStringLiteral("service")), QStringLiteral("x"));
    r.optionsNib = QStringLiteral("Missing");
    EXPECT_FALSE(r.optionsNibExists());
    EXPECT_FALSE(r.optionsNibNeedsKeychain());
    OptionSheets::unregisterSheet(QStringLiteral("TestLogin"));
}

TEST(Validation, MessagesInOrderAndAlerts)
{
    TestEngine engine;
    QString errors;
    const ActionFile none = parse(QStringLiteral("puts 1\n"));
    EXPECT_FALSE(none.validateMetaData(nullptr, &errors));
    EXPECT_EQ(errors, QStringLiteral("-Section beginning with # Skelvo Action Info not found\n"));

    const ActionFile bare = parse(QStringLiteral("# Skelvo Action Info\n# Handles: files\n"));
    EXPECT_FALSE(bare.validateMetaData(&engine->alerts, &errors));
    EXPECT_EQ(errors,
              QStringLiteral("-Name field is missing\n-Description field is missing\n"
                             "-Handles field is missing and action responds to drag events\n"
                             "-Creator field is missing\n-URL field is missing\n"));
    ASSERT_EQ(engine.alerts().alerts.size(), 1);
    EXPECT_EQ(engine.alerts().alerts[0].style, Alert::Style::Critical);
    EXPECT_EQ(engine.alerts().alerts[0].title, QStringLiteral("Invalid Action Meta Data"));
    EXPECT_EQ(engine.alerts().alerts[0].message,
              QStringLiteral(
                  "The action script you are trying to add contains invalid or missing meta data. "
                  "The following problems were found:\n\n") +
                  errors);

    // A click-only action needs no Handles line.
    const ActionFile clicks =
        parse(QStringLiteral("# Skelvo Action Info\n# Name: A\n# Description: D\n"
                             "# Events: Clicked\n# Creator: C\n# URL: U\n"));
    EXPECT_TRUE(clicks.validateMetaData(&engine->alerts, &errors));
    EXPECT_TRUE(errors.isEmpty());
    EXPECT_EQ(engine.alerts().alerts.size(), 1);

    ActionFile scanned = bare;
    scanned.metaValidationFailed = true;
    scanned.metaValidationErrors = QStringLiteral("-Name field is missing\n");
    EXPECT_FALSE(scanned.checkValidMetadataAndDisplayErrors(engine->alerts));
    EXPECT_EQ(engine.alerts().alerts.last().message,
              QStringLiteral(
                  "This action contains invalid or missing meta data. The following problems were "
                  "found:\n\n-Name field is missing\n"));
    EXPECT_TRUE(clicks.checkValidMetadataAndDisplayErrors(engine->alerts));
}

TEST(Versions, CompareWalksOnlyCommonComponents)
{
    struct Row {
        const char* minimum;
        const char* app;
        int expected;
    };
    const Row rows[] = {
        {"4.0", "5.0", 1}, {"5.0", "5.0", 0},  {"5.1", "5.0", -1},     {"5.0.1", "5.0", 0},
        {"5", "4.9", -1},  {"4", "5.0.3", 1},  {"2.10", "2.9", -1},    {"2.9", "2.10", 1},
        {"", "5.0", 1},    {"6.0", "10.0", 1}, {"5.0.2", "5.0.10", 1},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(ActionFile::compareVersion(QString::fromLatin1(row.minimum),
                                             QString::fromLatin1(row.app)),
                  row.expected)
            << row.minimum << " vs " << row.app;
    }
}

TEST(BuiltInRecords, CopyTheCatalogueEntry)
{
    ActionInfo info;
    info.name = QStringLiteral("SFTP Upload");
    info.actionDescription = QStringLiteral("Uploads");
    info.handles = {ActionInfo::Handles::Files};
    info.events = {ActionInfo::Event::Dragged, ActionInfo::Event::TestConnection};
    info.menuCategory = 1;
    info.optionsNib = QStringLiteral("ExtendedLogin");
    info.defaultPort = QStringLiteral("22");
    info.keyModifiers = QStringLiteral("option");
    info.iconPath = QStringLiteral("/icons/sftp.png");
    const ActionFile r = builtInActionFile(info);
    EXPECT_TRUE(r.isBuiltInAction);
    EXPECT_FALSE(r.isUserScript);
    EXPECT_EQ(r.events, (QStringList{QStringLiteral("Dragged"), QStringLiteral("TestConnection")}));
    EXPECT_TRUE(r.handlesTestConnection());
    EXPECT_FALSE(r.handlesClicked());
    EXPECT_TRUE(r.optionKeyModifierEnabled());
    EXPECT_EQ(r.handles(), QStringList{DragTypes::Files});
    EXPECT_EQ(r.defaultPort, QStringLiteral("22"));
    EXPECT_EQ(r.iconPath(), QStringLiteral("/icons/sftp.png"));
    EXPECT_TRUE(r.validateMetaData(nullptr) || r.creator.isEmpty());

    ActionInfo both;
    both.name = QStringLiteral("Run Shortcut");
    both.handles = {ActionInfo::Handles::Text, ActionInfo::Handles::Files};
    both.events = {ActionInfo::Event::Clicked, ActionInfo::Event::Dragged};
    const ActionFile b = builtInActionFile(both);
    EXPECT_EQ(b.events, (QStringList{QStringLiteral("Dragged"), QStringLiteral("Clicked")}));
    EXPECT_EQ(b.handles(), (QStringList{DragTypes::Files, DragTypes::Text}));
    EXPECT_TRUE(b.isUserScript); // no menu category
    EXPECT_FALSE(b.keyModifiersDefined);
}

TEST_F(ParserTest, ProcessPathRecognisesBundlesAndSingleFiles)
{
    const QString ruby = addBundle(internalDir(), QStringLiteral("Ruby.SKBundle"), CompleteHeader);
    const QString python = addBundle(userDir(), QStringLiteral("Py.skbundle"), CompleteHeader,
                                     QStringLiteral("action.py"));
    addBundle(userDir(), QStringLiteral("Py.skbundle"), "not read", QStringLiteral("action.rb"));
    const QString single = addFile(userDir(), QStringLiteral("one.skelvo"), CompleteHeader);

    const auto r = parser.processPath(ruby);
    ASSERT_TRUE(r);
    EXPECT_TRUE(r->isBundle);
    EXPECT_FALSE(r->isPythonAction);
    EXPECT_FALSE(r->isUserScript);
    EXPECT_EQ(r->taskPath, ruby);
    EXPECT_EQ(r->scriptPath(), ruby + QStringLiteral("/action.rb"));
    EXPECT_EQ(r->actionName, QStringLiteral("Upload"));

    const auto p = parser.processPath(python);
    ASSERT_TRUE(p);
    EXPECT_TRUE(p->isPythonAction);
    EXPECT_TRUE(p->isUserScript);
    EXPECT_EQ(p->scriptPath(), python + QStringLiteral("/action.py"));
    EXPECT_EQ(p->actionName, QStringLiteral("Upload"));

    const auto s = parser.processPath(single);
    ASSERT_TRUE(s);
    EXPECT_FALSE(s->isBundle);
    EXPECT_EQ(s->scriptPath(), single);
    EXPECT_TRUE(s->isUserScript);

    EXPECT_FALSE(
        parser.processPath(addFile(userDir(), QStringLiteral("notes.txt"), CompleteHeader)));
    EXPECT_FALSE(
        parser.processPath(addFile(userDir(), QStringLiteral(".hidden.skelvo"), CompleteHeader)));
    QDir().mkpath(QDir(userDir()).filePath(QStringLiteral("dir.skelvo")));
    EXPECT_FALSE(parser.processPath(QDir(userDir()).filePath(QStringLiteral("dir.skelvo"))));
    // A nested folder is not the user actions folder.
    const QString nested = addFile(QDir(userDir()).filePath(QStringLiteral("sub")),
                                   QStringLiteral("n.skelvo"), CompleteHeader);
    EXPECT_FALSE(parser.processPath(nested)->isUserScript);
}

TEST_F(ParserTest, UnreadableScriptsGiveNoRecordAndAreLogged)
{
    LogCapture log;
    const QString empty = QDir(userDir()).filePath(QStringLiteral("Empty.skbundle"));
    QDir().mkpath(empty);
    EXPECT_FALSE(parser.processPath(empty));
    EXPECT_TRUE(log.contains(QStringLiteral("Error reading file at ") + empty +
                             QStringLiteral("/action.rb\n")));
    EXPECT_FALSE(parser.processPath(
        addFile(userDir(), QStringLiteral("bad.skelvo"), "# Skelvo Action Info\n\xff\xfe\n")));
}

TEST_F(ParserTest, ScanKeepsInvalidRecordsDropsNamelessAndCaches)
{
    addBundle(internalDir(), QStringLiteral("B.skbundle"), header(QStringLiteral("Internal B")));
    addBundle(internalDir(), QStringLiteral("A.skbundle"), header(QStringLiteral("Internal A")));
    addFile(userDir(), QStringLiteral("user.skelvo"), "# Skelvo Action Info\n# Name: Half\n");
    addFile(userDir(), QStringLiteral("nameless.skelvo"),
            "# Skelvo Action Info\n# Description: x\n");
    addFile(userDir(), QStringLiteral("plain.skelvo"), "puts 1\n");
    ActionInfo builtIn;
    builtIn.name = QStringLiteral("Open File");
    builtIn.events = {ActionInfo::Event::Clicked};
    builtIn.menuCategory = 1;
    provideBuiltInActions(parser, {builtIn});
    ActionFile service;
    service.isSharingService = true;
    service.actionName = QStringLiteral("Share");
    service.taskPath = QStringLiteral("sharing:Share");
    parser.setSharingServiceProvider(
        [service] { return ActionFileList{std::make_shared<ActionFile>(service)}; });

    const ActionFileList records = parser.actionFiles();
    QStringList names;
    for (const auto& r : records) {
        names << r->actionName;
    }
    EXPECT_EQ(names, (QStringList{QStringLiteral("Internal A"), QStringLiteral("Internal B"),
                                  QStringLiteral("Half"), QStringLiteral("Share"),
                                  QStringLiteral("Open File")}));
    const ActionFilePtr half = parser.getActionWithType(QStringLiteral("Half"));
    ASSERT_TRUE(half);
    EXPECT_TRUE(half->metaValidationFailed);
    EXPECT_EQ(
        half->metaValidationErrors,
        QStringLiteral(
            "-Description field is missing\n-Handles field is missing and action responds to drag "
            "events\n-Creator field is missing\n-URL field is missing\n"));
    EXPECT_FALSE(parser.getActionWithType(QStringLiteral("Internal A"))->metaValidationFailed);
    EXPECT_EQ(parser.getUserActionFiles().size(), 1);

    // Cached until invalidated.
    addFile(userDir(), QStringLiteral("later.skelvo"), header(QStringLiteral("Later")));
    EXPECT_FALSE(parser.getActionWithType(QStringLiteral("Later")));
    parser.invalidateActionsCache();
    EXPECT_TRUE(parser.getActionWithType(QStringLiteral("Later")));
    EXPECT_EQ(
        parser.getActionWithTaskPath(QDir(userDir()).filePath(QStringLiteral("later.skelvo")))
            ->actionName,
        QStringLiteral("Later"));
    EXPECT_FALSE(parser.getActionWithTaskPath(QStringLiteral("/nowhere")));
}

TEST_F(ParserTest, DuplicateAlertShowsOncePerChange)
{
    addBundle(internalDir(), QStringLiteral("A.skbundle"), header(QStringLiteral("Same")));
    addFile(userDir(), QStringLiteral("a.skelvo"), header(QStringLiteral("Same")));
    auto& alerts = engine.alerts().alerts;

    parser.actionFiles();
    ASSERT_EQ(alerts.size(), 1);
    EXPECT_EQ(alerts[0].title, QStringLiteral("Duplicate action bundles named 'Same' detected"));
    EXPECT_EQ(
        alerts[0].message,
        QStringLiteral(
            "There are currently multiple Skelvo action bundles with the name 'Same'.\n\n"
            "You must either rename or delete one as each action bundle must have a unique name."));
    EXPECT_EQ(engine.windows().settingsPages, QStringList{QStringLiteral("Add-on Actions")});

    parser.invalidateActionsCache();
    parser.actionFiles();
    EXPECT_EQ(alerts.size(), 1) << "an unchanged duplicate list shows nothing";

    addFile(userDir(), QStringLiteral("b.skelvo"), header(QStringLiteral("Same")));
    addFile(userDir(), QStringLiteral("c.skelvo"), header(QStringLiteral("Other")));
    addFile(userDir(), QStringLiteral("d.skelvo"), header(QStringLiteral("Other")));
    parser.invalidateActionsCache();
    parser.actionFiles();
    ASSERT_EQ(alerts.size(), 2);
    EXPECT_EQ(alerts[1].title, QStringLiteral("Duplicate action bundle names detected"));
    EXPECT_EQ(alerts[1].message,
              QStringLiteral("The following action bundles have duplicates with the same name:\n\n"
                             "-Same\n-Same\n-Other\n\nYou must either rename or delete the "
                             "duplicates."));

    // Skipped while an install replaces an action.
    addFile(userDir(), QStringLiteral("e.skelvo"), header(QStringLiteral("Other")));
    parser.setSkipDuplicatesCheck(true);
    parser.invalidateActionsCache();
    parser.actionFiles();
    EXPECT_EQ(alerts.size(), 2);
}

TEST_F(ParserTest, LookupsAndUniqueNames)
{
    addFile(userDir(), QStringLiteral("foo.skelvo"), header(QStringLiteral("Foo")));
    addFile(userDir(), QStringLiteral("foo2.skelvo"), header(QStringLiteral("Foo 2")));
    addFile(userDir(), QStringLiteral("bar.skelvo"), header(QStringLiteral("Bar")));
    EXPECT_EQ(parser.getUniqueNameForCopiedActionWithPrefix(QStringLiteral("Foo")),
              QStringLiteral("Foo 3"));
    EXPECT_EQ(parser.getUniqueNameForCopiedActionWithPrefix(QStringLiteral("Bar")),
              QStringLiteral("Bar 2"));
    EXPECT_EQ(parser.getUniqueNameForCopiedActionWithPrefix(QStringLiteral("Baz")),
              QStringLiteral("Baz"));

    ActionFile service;
    service.isSharingService = true;
    service.actionName = QStringLiteral("Mail");
    service.taskPath = QStringLiteral("sharing:Mail");
    parser.setSharingServiceProvider(
        [service] { return ActionFileList{std::make_shared<ActionFile>(service)}; });
    auto namesOf = [](const ActionFileList& list) {
        QStringList names;
        for (const auto& r : list) {
            names << r->actionName;
        }
        return names;
    };
    EXPECT_EQ(namesOf(parser.getActionsWithPreferredOrder(
                  {QStringLiteral("Mail"), QStringLiteral("Foo 2"), QStringLiteral("None")})),
              (QStringList{QStringLiteral("Mail"), QStringLiteral("Foo 2"), QStringLiteral("Bar"),
                           QStringLiteral("Foo")}));
    EXPECT_EQ(namesOf(parser.getActionsWithPreferredOrder(
                  {QStringLiteral("Mail"), QStringLiteral("Foo")},
                  [](const QString& name) { return name == QStringLiteral("Mail"); })),
              (QStringList{QStringLiteral("Foo"), QStringLiteral("Bar"), QStringLiteral("Foo 2")}));
}

TEST_F(ParserTest, DeleteActionFilesRemovesBundlesAndFilesAndLogsFailures)
{
    const QString bundle =
        addBundle(userDir(), QStringLiteral("X.skbundle"), header(QStringLiteral("X")));
    const QString file =
        addFile(userDir(), QStringLiteral("y.skelvo"), header(QStringLiteral("Y")));
    parser.deleteActionFiles({parser.getActionWithType(QStringLiteral("X")),
                              parser.getActionWithType(QStringLiteral("Y"))});
    EXPECT_FALSE(QFileInfo::exists(bundle));
    EXPECT_FALSE(QFileInfo::exists(file));

    if (::geteuid() != 0) {
        LogCapture log;
        const QString locked = addFile(QDir(userDir()).filePath(QStringLiteral("locked")),
                                       QStringLiteral("z.skelvo"), header(QStringLiteral("Z")));
        QFile::setPermissions(QFileInfo(locked).absolutePath(), QFile::ReadOwner | QFile::ExeOwner);
        auto record = std::make_shared<ActionFile>();
        record->taskPath = locked;
        parser.deleteActionFiles({record});
        EXPECT_TRUE(log.contains(QStringLiteral("Error deleting user action with path ") + locked));
        QFile::setPermissions(QFileInfo(locked).absolutePath(),
                              QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
}

TEST_F(ParserTest, BundleIconFallsBackToTheGenericImage)
{
    const QString bundle =
        addBundle(userDir(), QStringLiteral("I.skbundle"), header(QStringLiteral("I")));
    const auto record = parser.processPath(bundle);
    const QString generic =
        QDir(SupportPaths::resourcesDirectory()).filePath(QStringLiteral("Images/bundle.png"));
    EXPECT_EQ(record->iconPath(), generic);
    addFile(bundle, QStringLiteral("icon.png"), "not an image");
    EXPECT_EQ(record->iconPath(), generic);
    // 1x1 PNG.
    addFile(bundle, QStringLiteral("icon.png"),
            QByteArray::fromBase64("iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAYAAAAfFcSJAAAADUlEQVR42mP8z8B"
                                   "QDwAEhQGAhKmMIQAAAABJRU5ErkJggg=="));
    EXPECT_EQ(record->iconPath(), QDir(bundle).filePath(QStringLiteral("icon.png")));
}

TEST(HeaderWriter, WritesLinesInOrder)
{
    DevelopActionRequest request;
    request.name = QStringLiteral("Mine");
    request.description = QStringLiteral("Line one\nLine two");
    request.creator = QStringLiteral("Me");
    request.url = QStringLiteral("https://example.org");
    request.handlesFiles = true;
    request.handlesText = true;
    request.keyModifiersDefined = true;
    request.keyModifiers = {QStringLiteral("Option"), QStringLiteral("Shift")};
    request.skipConfig = true;
    request.runsSandboxed = false;
    EXPECT_EQ(DevelopActionController::headerText(request),
              QStringLiteral(
                  "# Skelvo Action Info\n# Name: Mine\n# Description: Line one\\nLine two\n"
                  "# Handles: Files, Text\n# Creator: Me\n# URL: https://example.org\n"
                  "# Events: Clicked, Dragged\n# KeyModifiers: Option, Shift\n# SkipConfig: Yes\n"
                  "# RunsSandboxed: No\n# Version: 1.0\n# MinSkelvoVersion: 4.0\n"));
    // The header reads back as it was meant.
    const ActionFile back = parse(DevelopActionController::headerText(request));
    EXPECT_EQ(back.actionDescription, request.description);
    EXPECT_TRUE(back.handlesFilesDragType() && back.handlesTextDragType());

    auto copied = std::make_shared<ActionFile>();
    copied->optionsNib = QStringLiteral("ExtendedLogin");
    copied->authScope = QStringLiteral("scope");
    copied->skipValidation = true;
    copied->useSelectedItemNameAndIcon = true;
    copied->optionsTitle = QStringLiteral("Login");
    copied->iconUrl = QStringLiteral("https://i");
    copied->defaultPort = QStringLiteral("22");
    copied->version = QStringLiteral("2.3");
    copied->minSkelvoVersion = QStringLiteral("5.0");
    copied->rubyPath = QStringLiteral("/usr/bin/ruby");
    copied->pythonPath = QStringLiteral("/usr/bin/python3");
    copied->forceX86Ruby = true;
    DevelopActionRequest copy;
    copy.name = QStringLiteral("Copy");
    copy.description = QStringLiteral("D");
    copy.creator = QStringLiteral("C");
    copy.url = QStringLiteral("U");
    copy.clicked = false;
    copy.handlesFiles = false;
    copy.handlesText = true;
    copy.copiedFrom = copied;
    EXPECT_EQ(
        DevelopActionController::headerText(copy),
        QStringLiteral(
            "# Skelvo Action Info\n# Name: Copy\n# Description: D\n# Handles: Text\n# Creator: C\n"
            "# URL: U\n# OptionsNIB: ExtendedLogin\n# AuthScope: scope\n# SkipValidation: Yes\n"
            "# UseSelectedItemNameAndIcon: Yes\n# OptionsTitle: Login\n# IconURL: https://i\n"
            "# DefaultPort: 22\n# Events: Dragged\n# SkipConfig: No\n# RunsSandboxed: Yes\n"
            "# Version: 2.3\n# MinSkelvoVersion: 5.0\n# RubyPath: /usr/bin/ruby\n"
            "# PythonPath: /usr/bin/python3\n# ForceX86Ruby: Yes\n"));
    copy.dragged = false;
    copy.clicked = true;
    const QString clickOnly = DevelopActionController::headerText(copy);
    EXPECT_FALSE(clickOnly.contains(QStringLiteral("# Handles:")));
    EXPECT_TRUE(clickOnly.contains(QStringLiteral("# Events: Clicked\n")));
}

TEST(HeaderRewrite, KeepsBodyFromTheBlankLineAfterTheOldHeader)
{
    QStringList lines;
    lines << QStringLiteral("# Skelvo Action Info") << QStringLiteral("# Name: Old");
    for (int i = 2; i < 8; ++i) {
        lines << QStringLiteral("# Key%1: v").arg(i);
    }
    lines << QString(); // 8: end of the old header
    lines << QStringLiteral("# Comment") << QStringLiteral("def clicked; end");
    for (int i = 11; i < 40; ++i) {
        lines << (i % 2 ? QString() : QStringLiteral("x%1 = 1").arg(i));
    }
    const QString text = lines.join(u'\n');
    const QString kept =
        DevelopActionController::rewrittenText(QStringLiteral("# NEW\n"), text, false, false);
    EXPECT_TRUE(
        kept.startsWith(QStringLiteral("# NEW\n\n# Comment\ndef clicked; end\n\nx12 = 1\n")));
    // Only the final line end goes: the text's last line is blank, so one remains.
    EXPECT_TRUE(kept.endsWith(QStringLiteral("x38 = 1\n")));
    EXPECT_FALSE(kept.contains(QStringLiteral("Name: Old")));

    const QString bare =
        DevelopActionController::rewrittenText(QStringLiteral("# NEW\n"), text, false, true);
    // Comments go, and so do the blank lines at 16-22 and 33 (Ruby); others stay.
    EXPECT_FALSE(bare.contains(QStringLiteral("# Comment")));
    EXPECT_TRUE(
        bare.contains(QStringLiteral("x14 = 1\n\nx16 = 1\nx18 = 1\nx20 = 1\nx22 = 1\n\nx24 = 1")));
    EXPECT_TRUE(bare.contains(QStringLiteral("x32 = 1\nx34 = 1\n\nx36 = 1")));
    const QString py =
        DevelopActionController::rewrittenText(QStringLiteral("# NEW\n"), text, true, true);
    EXPECT_TRUE(py.contains(QStringLiteral("x32 = 1\n\nx34 = 1\nx36 = 1")));

    // A blank line before index 6 does not end the old header.
    const QString early =
        QStringLiteral("# Skelvo Action Info\n# Name: A\n\n# Creator: c\nx\ny\n\nbody");
    EXPECT_EQ(DevelopActionController::rewrittenText(QStringLiteral("# H\n"), early, false, false),
              QStringLiteral("# H\n\nbody"));
}

TEST_F(ParserTest, RewriteMetaDataReplacesTheHeaderOnDisk)
{
    const QString bundle =
        addBundle(userDir(), QStringLiteral("R.skbundle"),
                  "# Skelvo Action Info\n# Name: R\n# a: 1\n# b: 2\n# c: 3\n# d: 4\n\nputs 'hi'\n");
    const QString script = QDir(bundle).filePath(QStringLiteral("action.rb"));
    QFile::setPermissions(script, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    ASSERT_TRUE(DevelopActionController::rewriteMetaData(
        QStringLiteral("# Skelvo Action Info\n# Name: New\n"), script, false));
    const auto record = parser.processPath(bundle);
    EXPECT_EQ(record->actionName, QStringLiteral("New"));
    QFile file(script);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(QString::fromUtf8(file.readAll()),
              QStringLiteral("# Skelvo Action Info\n# Name: New\n\nputs 'hi'\n"));
    EXPECT_TRUE(QFileInfo(script).isExecutable());

    LogCapture log;
    EXPECT_FALSE(DevelopActionController::rewriteMetaData(
        QStringLiteral("# H\n"), QDir(bundle).filePath(QStringLiteral("missing.rb")), false));
    EXPECT_TRUE(log.contains(QStringLiteral("Error reading file at ")));
    EXPECT_TRUE(log.contains(QStringLiteral(" in rewriteMetaData\n")));
}

TEST_F(ParserTest, DevelopSheetRefusalsAndMissingTemplate)
{
    addFile(userDir(), QStringLiteral("taken.skelvo"), header(QStringLiteral("Taken")));
    DevelopActionController controller(parser, engine->settings, engine->alerts);
    DevelopActionRequest request;
    request.name = QStringLiteral("Fresh");
    request.clicked = false;
    request.dragged = false;
    EXPECT_EQ(controller.refusalFor(request),
              QStringLiteral("Action must handle at least one event."));
    request.dragged = true;
    request.handlesFiles = false;
    request.handlesText = false;
    EXPECT_EQ(controller.refusalFor(request),
              QStringLiteral("Action must handle at least one dragging type."));
    request.handlesText = true;
    request.name = QStringLiteral("Taken");
    EXPECT_EQ(controller.refusalFor(request),
              QStringLiteral(
                  "An action already exists with the same name. Action names must be unique."));
    QString error;
    EXPECT_FALSE(controller.createAction(request, true, &error));
    EXPECT_TRUE(engine.alerts().alerts.isEmpty());
    request.name = QStringLiteral("Fresh");
    EXPECT_FALSE(controller.refusalFor(request));

    // This parser's internal folder has no templates.
    EXPECT_FALSE(controller.createAction(request, true, &error));
    ASSERT_EQ(engine.alerts().alerts.size(), 1);
    EXPECT_EQ(engine.alerts().alerts[0].title, QStringLiteral("Could not find action template."));
    EXPECT_EQ(engine.alerts().alerts[0].message, QStringLiteral("You should re-install Skelvo."));
}

TEST(DevelopSheet, CreatesWorkingActionsFromTheShippedTemplates)
{
    TestEngine engine;
    ActionFileParser parser(SupportPaths::internalActionsDirectory(),
                            SupportPaths::userActionsDirectory());
    DevelopActionController controller(parser, engine->settings, engine->alerts);
    for (const auto language :
         {DevelopActionRequest::Language::Ruby, DevelopActionRequest::Language::Python}) {
        for (const bool comments : {true, false}) {
            DevelopActionRequest request;
            request.name = QStringLiteral("Made %1 %2").arg(int(language)).arg(comments);
            request.description = QStringLiteral("Made by a test");
            request.creator = QStringLiteral("Tester");
            request.url = QStringLiteral("https://example.org");
            request.handlesText = true;
            request.language = language;
            QString error;
            const ActionFilePtr made = controller.createAction(request, comments, &error);
            ASSERT_TRUE(made) << error.toStdString();
            EXPECT_TRUE(made->isUserScript);
            EXPECT_EQ(made->isPythonAction, language == DevelopActionRequest::Language::Python);
            EXPECT_FALSE(made->metaValidationFailed) << made->metaValidationErrors.toStdString();
            EXPECT_EQ(made->handles(), (QStringList{DragTypes::Files, DragTypes::Text}));
            EXPECT_TRUE(
                QFileInfo::exists(QDir(made->taskPath).filePath(QStringLiteral("icon.png"))));
            QFile script(made->scriptPath());
            ASSERT_TRUE(script.open(QIODevice::ReadOnly));
            const QByteArray text = script.readAll();
            const QByteArray newHeader = DevelopActionController::headerText(request).toUtf8();
            EXPECT_TRUE(text.startsWith(newHeader));
            EXPECT_EQ(text.mid(newHeader.size()).contains("\n# "), comments);
        }
    }
    EXPECT_TRUE(engine.alerts().alerts.isEmpty());
    EXPECT_EQ(engine->settings.stringValue(Settings::DevelopPreferredLanguage),
              QStringLiteral("Python"));
}
