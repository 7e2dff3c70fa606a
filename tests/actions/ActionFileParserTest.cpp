#include "actions/ActionFileParser.h"

#include "actions/ActionOptionSchemas.h"
#include "actions/DevelopActionController.h"
#include "builtin/ActionInfo.h"
#include "core/Settings.h"
#include "core/SupportPaths.h"
#include "tests/support/TestEngine.h"
#include "tests/support/TestHome.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>

#include <gtest/gtest.h>
#include <unistd.h>

#define HDR "# Skelvo Action Info\n"

namespace {

ActionFile parse(const QString& text)
{
    ActionFile record;
    ActionFileParser::parseHeader(text, record);
    return record;
}

QString yesNo(bool value)
{
    return value ? "Yes" : "No";
}

QString shortType(QString type)
{
    return type.remove("SK").remove("DragType");
}

// Every header key's value as read, so a row can name the one it checks.
QString field(const ActionFile& r, const QString& key)
{
    QStringList handles;
    for (const QString& type : r.handles()) {
        handles << shortType(type);
    }
    const QMap<QString, QString> fields{
        {"found", yesNo(!r.metaDataNotFound)},
        {"Name", r.actionName},
        {"Description", r.actionDescription},
        {"Creator", r.creator},
        {"URL", r.url},
        {"IconURL", r.iconUrl},
        {"OptionsNIB", r.optionsNib},
        {"OptionsTitle", r.optionsTitle},
        {"DefaultPort", r.defaultPort},
        {"UniqueID", r.uniqueID},
        {"Version", r.version},
        {"MinSkelvoVersion", r.minSkelvoVersion},
        {"RubyPath", r.rubyPath},
        {"PythonPath", r.pythonPath},
        {"AuthScope", r.authScope},
        {"Handles", handles.join(u',')},
        {"Events", r.events.join(u',')},
        {"KeyModifiers", r.enabledKeyModifiers.join(u',')},
        {"RunsSandboxed", yesNo(r.runsSandboxed)},
        {"SkipConfig", yesNo(r.skipConfig)},
        {"SkipValidation", yesNo(r.skipValidation)},
        {"ForceX86Ruby", yesNo(r.forceX86Ruby)},
        {"UseSelectedItemNameAndIcon", yesNo(r.useSelectedItemNameAndIcon)},
    };
    EXPECT_TRUE(fields.contains(key)) << key.toStdString();
    return fields.value(key);
}

struct HeaderRow {
    const char* text;
    const char* key;
    const char* expected;
};

const HeaderRow HeaderRows[] = {
    // Only the second ": " piece is the value; the key loses two characters, whatever they are.
    {HDR "# Description: Note: slow\n", "Description", "Note"},
    {HDR "#:Name: Colon\n", "Name", "Colon"},
    {HDR "## Creator: Jane\n", "Creator", ""},
    {HDR "# URL no separator\n", "URL", ""},
    {HDR "xxCreator:   Jane Doe  \t\n", "Creator", "Jane Doe"},
    {HDR "# Description: one\\ntwo\n", "Description", "one\ntwo"},
    // The opening line must match exactly; lines before it carry nothing.
    {"# Skelvo Action Info\r\n# Name: A\r\n", "found", "No"},
    {"# Skelvo Action Info \n# Name: A\n", "found", "No"},
    {"  # Skelvo Action Info\n# Name: A\n", "found", "No"},
    {"x = 1\n# Skelvo Destination Info\n# Name: A\n", "Name", "A"},
    {"# Name: Early\n" HDR, "Name", ""},
    // The header ends at the first blank line, or runs to the end.
    {HDR "# Creator: c\n \t \n# Name: Late\n", "Name", ""},
    {HDR "# Creator: c\n\r\n# Name: Late\n", "Name", ""},
    {HDR "# Name: A\nx Version: 9\nx = {URL: 1}\n", "Version", "9"},
    {HDR "# Name: A\nx Version: 9\nx = {URL: 1}\n", "URL", ""},
    // Later keys overwrite; lists append.
    {HDR "# Name: First\n# Name: Second\n", "Name", "Second"},
    {HDR "# Events: Clicked\n# Events: Dragged , TestConnection\n", "Events",
     "Clicked,Dragged,TestConnection"},
    {HDR "# KeyModifiers: Option\n# KeyModifiers: Shift\n", "KeyModifiers", "Option,Shift"},
    {HDR "# Handles: Files\n# Handles: Text\n", "Handles", "Text"},
    // Handles maps the known pieces, case-sensitively, and drops the rest.
    {HDR "# Handles: Files, Text\n", "Handles", "Files,Text"},
    {HDR "# Handles: NSStringPboardType,NSFilenamesPboardType\n", "Handles", "Text,Files"},
    {HDR "# Handles: Files, Images, Files\n", "Handles", "Files"},
    {HDR "# Handles: files\n", "Handles", "No"},
    {HDR "# Handles: TEXT\n", "Handles", "No"},
    {HDR "# Handles: \n", "Handles", "No"},
    // Yes/No keys keep their defaults when absent (the writer's test reads every other key).
    {HDR "# Name: A\n", "RunsSandboxed", "Yes"},
    {HDR "# Name: A\n", "SkipConfig", "No"},
    // Any Yes/No value but "no" in any case is yes.
    {HDR "# SkipConfig: no\n", "SkipConfig", "No"},
    {HDR "# RunsSandboxed: NO\n", "RunsSandboxed", "No"},
    {HDR "# SkipValidation: false\n", "SkipValidation", "Yes"},
    {HDR "# ForceX86Ruby: \n", "ForceX86Ruby", "Yes"},
    {HDR "# UseSelectedItemNameAndIcon: nope\n", "UseSelectedItemNameAndIcon", "Yes"},
};

TEST(HeaderGrammar, Rows)
{
    for (const HeaderRow& row : HeaderRows) {
        SCOPED_TRACE(row.text);
        EXPECT_EQ(field(parse(QString::fromUtf8(row.text)), QString::fromUtf8(row.key)),
                  QString::fromUtf8(row.expected));
    }
}

// C(licked) D(ragged) T(estConnection) A(uthorize) F(iles drag) X(text drag), option and
// control modifiers, then the grid's summary.
TEST(Queries, EventsHandlesAndModifiers)
{
    const auto summary = [](const char* text) {
        const ActionFile r = parse(QString::fromUtf8(text));
        QString flags;
        for (const auto& [on, letter] : {std::pair{r.handlesClicked(), 'C'},
                                         {r.handlesDragged(), 'D'},
                                         {r.handlesTestConnection(), 'T'},
                                         {r.handlesAuthorize(), 'A'},
                                         {r.handlesFilesDragType(), 'F'},
                                         {r.handlesTextDragType(), 'X'},
                                         {r.optionKeyModifierEnabled(), 'o'},
                                         {r.controlKeyModifierEnabled(), 'c'},
                                         {r.commandKeyModifierEnabled(), 'm'},
                                         {r.shiftKeyModifierEnabled(), 's'}}) {
            flags += on ? QChar::fromLatin1(letter) : u'-';
        }
        return flags + u' ' + r.handlesString();
    };
    const std::pair<const char*, const char*> rows[] = {
        {HDR "# Handles: Files, Text\n", "CD--FX---- Files & Text"},
        {HDR "# Handles: Files\n# Events: CLICKED, authorize\n", "C--A------ Clicks"},
        {HDR "# Events: \n", "---------- Clicks"},
        {HDR "# Handles: Text\n# Events: Dragged, TestConnection\n", "-DT--X---- Text"},
        {HDR "# Handles: Files\n", "CD--F----- Files"},
        {HDR "# Events: Dragged\n", "-D-------- Clicks"},
        {HDR "# KeyModifiers: OPTION, Control\n", "CD----oc-- Clicks"},
    };
    for (const auto& [text, expected] : rows) {
        EXPECT_EQ(summary(text), QString::fromUtf8(expected)) << text;
    }
}

TEST(Queries, OptionSheetsDecideKeychainAndConstants)
{
    ActionOptionSchemas::registerSchema(
        {"TestLogin", true, "password", {{"service", "x"}}, {}, {}});
    ActionFile r = parse(QStringLiteral(HDR "# OptionsNIB: TestLogin\n"));
    EXPECT_TRUE(r.optionsNibExists() && r.optionsNibNeedsKeychain());
    EXPECT_EQ(r.keychainPasswordKey(), "password");
    EXPECT_EQ(r.constantVariables().value("service"), "x");
    r.optionsNib = "Missing";
    EXPECT_FALSE(r.optionsNibExists() || r.optionsNibNeedsKeychain());
    ActionOptionSchemas::unregisterSchema("TestLogin");
}

TEST(Validation, MessagesInOrderAndOneAlert)
{
    TestEngine engine;
    QString errors;
    EXPECT_FALSE(parse("puts 1\n").validateMetaData(nullptr, &errors));
    EXPECT_EQ(errors, "-Section beginning with # Skelvo Action Info not found\n");
    const ActionFile bare = parse(QStringLiteral(HDR "# Handles: files\n"));
    EXPECT_FALSE(bare.validateMetaData(&engine->alerts, &errors));
    EXPECT_EQ(errors,
              QStringLiteral("-Name field is missing\n-Description field is missing\n"
                             "-Handles field is missing and action responds to drag events\n"
                             "-Creator field is missing\n-URL field is missing\n"));
    ASSERT_EQ(engine.alerts().alerts.size(), 1);
    EXPECT_TRUE(engine.alerts().alerts[0].message.endsWith(errors));
    // A click-only action needs no Handles line.
    const ActionFile clicks = parse(QStringLiteral(
        HDR "# Name: A\n# Description: D\n# Events: Clicked\n# Creator: C\n# URL: U\n"));
    EXPECT_TRUE(clicks.validateMetaData(&engine->alerts, &errors));
    EXPECT_TRUE(errors.isEmpty());
    EXPECT_TRUE(clicks.checkValidMetadataAndDisplayErrors(engine->alerts));
    ActionFile scanned = bare;
    scanned.metaValidationFailed = true;
    scanned.metaValidationErrors = "-Name field is missing\n";
    EXPECT_FALSE(scanned.checkValidMetadataAndDisplayErrors(engine->alerts));
    EXPECT_EQ(engine.alerts().alerts.size(), 2);
}

TEST(Versions, CompareWalksOnlyCommonComponents)
{
    const std::tuple<const char*, const char*, int> rows[] = {
        {"4.0", "5.0", 1}, {"5.0", "5.0", 0},  {"5.1", "5.0", -1},     {"5.0.1", "5.0", 0},
        {"5", "4.9", -1},  {"4", "5.0.3", 1},  {"2.10", "2.9", -1},    {"2.9", "2.10", 1},
        {"", "5.0", 1},    {"6.0", "10.0", 1}, {"5.0.2", "5.0.10", 1},
    };
    for (const auto& [minimum, app, expected] : rows) {
        EXPECT_EQ(
            ActionFile::compareVersion(QString::fromLatin1(minimum), QString::fromLatin1(app)),
            expected)
            << minimum << " vs " << app;
    }
}

TEST(BuiltInRecords, EventsAndHandlesInTheirFixedOrder)
{
    ActionInfo info;
    info.handles = {ActionInfo::Handles::Text, ActionInfo::Handles::Files};
    info.events = {ActionInfo::Event::Clicked, ActionInfo::Event::Dragged,
                   ActionInfo::Event::TestConnection};
    info.keyModifiers = "option";
    info.iconPath = "/icons/sftp.png";
    ActionFile r = builtInActionFile(info);
    EXPECT_TRUE(r.isBuiltInAction);
    EXPECT_TRUE(r.isUserScript); // no menu category
    EXPECT_EQ(field(r, "Events"), "Dragged,Clicked,TestConnection");
    EXPECT_EQ(field(r, "Handles"), "Files,Text");
    EXPECT_TRUE(r.optionKeyModifierEnabled());
    EXPECT_EQ(r.iconPath(), info.iconPath);
    info.menuCategory = 1;
    info.keyModifiers.clear();
    r = builtInActionFile(info);
    EXPECT_FALSE(r.isUserScript || r.keyModifiersDefined);
}

// A parser over folders of a private home, with fake alerts and windows.
class ParserTest : public ::testing::Test {
protected:
    QString internalDir() const { return QDir(home.path()).filePath("internal"); }
    QString userDir() const { return QDir(home.path()).filePath("user"); }
    QString add(const QString& folder, const QString& name, const QByteArray& script)
    {
        return home.writeFile(QDir(home.path()).relativeFilePath(QDir(folder).filePath(name)),
                              script);
    }
    static QByteArray header(const QString& name)
    {
        return QStringLiteral(HDR "# Name: %1\n# Description: d\n# Handles: Files\n"
                                  "# Creator: c\n# URL: u\n\nputs 1\n")
            .arg(name)
            .toUtf8();
    }
    QStringList names(const ActionFileList& list)
    {
        QStringList out;
        for (const auto& r : list) {
            out << r->actionName;
        }
        return out;
    }
    void provideSharingService(const QString& name)
    {
        ActionFile service;
        service.isSharingService = true;
        service.actionName = name;
        service.taskPath = "sharing:" + name;
        parser.setSharingServiceProvider(
            [service] { return ActionFileList{std::make_shared<ActionFile>(service)}; });
    }

    ParserTest() { parser.setPresenters(&engine->alerts, &engine->windows); }

    TestEngine engine;
    TestHome& home = engine.home();
    ActionFileParser parser{internalDir(), userDir()};
};

TEST_F(ParserTest, ProcessPathRecognisesBundlesAndSingleFiles)
{
    const QByteArray text = header("Upload");
    const QString ruby = QFileInfo(add(internalDir(), "Ruby.SKBundle/action.rb", text)).path();
    const QString python = QFileInfo(add(userDir(), "Py.skbundle/action.py", text)).path();
    add(userDir(), "Py.skbundle/action.rb", "not read");
    const auto r = parser.processPath(ruby);
    ASSERT_TRUE(r);
    EXPECT_TRUE(r->isBundle && !r->isPythonAction && !r->isUserScript);
    EXPECT_EQ(r->scriptPath(), ruby + "/action.rb");
    EXPECT_EQ(r->actionName, "Upload");
    const auto p = parser.processPath(python);
    ASSERT_TRUE(p);
    EXPECT_TRUE(p->isPythonAction && p->isUserScript);
    EXPECT_EQ(p->scriptPath(), python + "/action.py");
    for (const char* ignored : {"notes.txt", ".hidden.skelvo"}) {
        EXPECT_FALSE(parser.processPath(add(userDir(), ignored, text))) << ignored;
    }
    QDir().mkpath(QDir(userDir()).filePath("dir.skelvo"));
    EXPECT_FALSE(parser.processPath(QDir(userDir()).filePath("dir.skelvo")));
    // A single file in the user actions folder is a user script; in a nested folder it is not.
    EXPECT_TRUE(parser.processPath(add(userDir(), "one.skelvo", text))->isUserScript);
    EXPECT_FALSE(parser.processPath(add(userDir(), "sub/n.skelvo", text))->isUserScript);
    EXPECT_FALSE(parser.processPath(add(userDir(), "bad.skelvo", HDR "\xff\xfe\n")));
}

TEST_F(ParserTest, ScanKeepsInvalidRecordsDropsNamelessAndCaches)
{
    add(internalDir(), "B.skbundle/action.rb", header("Internal B"));
    add(internalDir(), "A.skbundle/action.rb", header("Internal A"));
    add(userDir(), "user.skelvo", HDR "# Name: Half\n# Description: d\n# Creator: c\n# URL: u\n");
    add(userDir(), "nameless.skelvo", HDR "# Description: x\n");
    add(userDir(), "plain.skelvo", "puts 1\n");
    ActionInfo builtIn;
    builtIn.name = "Open File";
    builtIn.menuCategory = 1;
    provideBuiltInActions(parser, {builtIn});
    provideSharingService("Share");
    EXPECT_EQ(names(parser.actionFiles()),
              (QStringList{"Internal A", "Internal B", "Half", "Share", "Open File"}));
    const ActionFilePtr half = parser.getActionWithType("Half");
    ASSERT_TRUE(half);
    EXPECT_TRUE(half->metaValidationFailed);
    EXPECT_EQ(half->metaValidationErrors,
              "-Handles field is missing and action responds to drag events\n");
    EXPECT_FALSE(parser.getActionWithType("Internal A")->metaValidationFailed);
    EXPECT_EQ(names(parser.getUserActionFiles()), QStringList{"Half"});

    const QString later = add(userDir(), "later.skelvo", header("Later"));
    EXPECT_FALSE(parser.getActionWithType("Later")) << "cached until invalidated";
    parser.invalidateActionsCache();
    ASSERT_TRUE(parser.getActionWithTaskPath(later));
    EXPECT_EQ(parser.getActionWithTaskPath(later)->actionName, "Later");
}

TEST_F(ParserTest, DuplicateAlertShowsOncePerChangeAndNotWhileInstalling)
{
    add(internalDir(), "A.skbundle/action.rb", header("Same"));
    add(userDir(), "a.skelvo", header("Same"));
    const auto& alerts = engine.alerts().alerts;
    const auto rescan = [this] {
        parser.invalidateActionsCache();
        parser.actionFiles();
    };
    rescan();
    ASSERT_EQ(alerts.size(), 1);
    EXPECT_EQ(alerts[0].title, "Duplicate action bundles named 'Same' detected");
    EXPECT_EQ(engine.windows().settingsPages, QStringList{"Add-on Actions"});
    rescan();
    EXPECT_EQ(alerts.size(), 1) << "an unchanged duplicate list shows nothing";
    for (const char* file : {"b.skelvo", "c.skelvo", "d.skelvo"}) {
        add(userDir(), file, header(file[0] == 'b' ? "Same" : "Other"));
    }
    rescan();
    ASSERT_EQ(alerts.size(), 2);
    EXPECT_TRUE(alerts[1].message.contains("\n\n-Same\n-Same\n-Other\n\n"));
    add(userDir(), "e.skelvo", header("Other"));
    parser.setSkipDuplicatesCheck(true);
    rescan();
    EXPECT_EQ(alerts.size(), 2);
}

TEST_F(ParserTest, UniqueNamesAndPreferredOrder)
{
    for (const char* name : {"Foo", "Foo 2", "Bar"}) {
        add(userDir(), QString::fromLatin1(name) + ".skelvo", header(name));
    }
    for (const auto& [prefix, expected] :
         {std::pair{"Foo", "Foo 3"}, {"Bar", "Bar 2"}, {"Baz", "Baz"}}) {
        EXPECT_EQ(parser.getUniqueNameForCopiedActionWithPrefix(prefix), QString(expected));
    }
    provideSharingService("Mail");
    EXPECT_EQ(names(parser.getActionsWithPreferredOrder({"Mail", "Foo 2", "None"})),
              (QStringList{"Mail", "Foo 2", "Bar", "Foo"}));
    // A sharing service already on the grid is left out.
    EXPECT_EQ(names(parser.getActionsWithPreferredOrder(
                  {"Mail", "Foo"}, [](const QString& name) { return name == u"Mail"; })),
              (QStringList{"Foo", "Bar", "Foo 2"}));
}

TEST_F(ParserTest, DeleteRemovesBundlesAndFilesAndLogsFailures)
{
    const QString bundle = QFileInfo(add(userDir(), "X.skbundle/action.rb", header("X"))).path();
    const QString file = add(userDir(), "y.skelvo", header("Y"));
    parser.deleteActionFiles({parser.getActionWithType("X"), parser.getActionWithType("Y")});
    EXPECT_FALSE(QFileInfo::exists(bundle) || QFileInfo::exists(file));
    if (::geteuid() != 0) {
        LogCapture log;
        const QString locked = add(userDir(), "locked/z.skelvo", header("Z"));
        const QString folder = QFileInfo(locked).path();
        QFile::setPermissions(folder, QFile::ReadOwner | QFile::ExeOwner);
        auto record = std::make_shared<ActionFile>();
        record->taskPath = locked;
        parser.deleteActionFiles({record});
        EXPECT_TRUE(log.contains("Error deleting user action with path " + locked));
        QFile::setPermissions(folder, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
}

TEST_F(ParserTest, BundleIconFallsBackToTheGenericImage)
{
    const QString bundle = QFileInfo(add(userDir(), "I.skbundle/action.rb", header("I"))).path();
    const auto record = parser.processPath(bundle);
    const QString generic = QDir(SupportPaths::resourcesDirectory()).filePath("Images/bundle.png");
    EXPECT_EQ(record->iconPath(), generic);
    add(bundle, "icon.png", "not an image");
    EXPECT_EQ(record->iconPath(), generic);
    add(bundle, "icon.png",
        QByteArray::fromBase64("iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAYAAAAfFcSJAAAADUlEQVR42mP8z8B"
                               "QDwAEhQGAhKmMIQAAAABJRU5ErkJggg=="));
    EXPECT_EQ(record->iconPath(), QDir(bundle).filePath("icon.png"));
}

TEST(HeaderWriter, WritesLinesInOrderAndCopiesReadBack)
{
    DevelopActionRequest request;
    request.name = "Mine";
    request.description = "Line one\nLine two";
    request.creator = "Me";
    request.url = "https://example.org";
    request.handlesFiles = request.handlesText = true;
    request.keyModifiersDefined = true;
    request.keyModifiers = {"Option", "Shift"};
    request.skipConfig = true;
    request.runsSandboxed = false;
    EXPECT_EQ(DevelopActionController::headerText(request),
              QStringLiteral(
                  HDR "# Name: Mine\n# Description: Line one\\nLine two\n"
                      "# Handles: Files, Text\n# Creator: Me\n# URL: https://example.org\n"
                      "# Events: Clicked, Dragged\n# KeyModifiers: Option, Shift\n# SkipConfig: "
                      "Yes\n# RunsSandboxed: No\n# Version: 1.0\n# MinSkelvoVersion: 4.0\n"));

    // A copy carries the original's other keys, and they read back as they were.
    auto copied = std::make_shared<ActionFile>(parse(QStringLiteral(
        HDR "# OptionsNIB: ExtendedLogin\n# AuthScope: scope\n# SkipValidation: Yes\n"
            "# UseSelectedItemNameAndIcon: Yes\n# OptionsTitle: Login\n# IconURL: https://i\n"
            "# DefaultPort: 22\n# Version: 2.3\n# MinSkelvoVersion: 5.0\n# RubyPath: /r\n"
            "# PythonPath: /p\n# ForceX86Ruby: Yes\n# UniqueID: ID\n")));
    DevelopActionRequest copy;
    copy.name = "Copy";
    copy.clicked = copy.handlesFiles = false;
    copy.handlesText = true;
    copy.copiedFrom = copied;
    const ActionFile back = parse(DevelopActionController::headerText(copy));
    for (const char* key :
         {"OptionsNIB", "AuthScope", "SkipValidation", "UseSelectedItemNameAndIcon", "OptionsTitle",
          "IconURL", "DefaultPort", "Version", "MinSkelvoVersion", "RubyPath", "PythonPath",
          "ForceX86Ruby"}) {
        EXPECT_EQ(field(back, key), field(*copied, key)) << key;
        EXPECT_NE(field(back, key), field(ActionFile(), key)) << key;
    }
    EXPECT_EQ(field(*copied, "UniqueID"), "ID");
    EXPECT_EQ(field(back, "Events"), "Dragged");
    copy.dragged = false;
    copy.clicked = true;
    EXPECT_FALSE(DevelopActionController::headerText(copy).contains("# Handles:"));
}

TEST(HeaderRewrite, KeepsBodyFromTheBlankLineAfterTheOldHeader)
{
    QStringList lines{QStringLiteral(HDR "# Name: Old").split(u'\n')};
    for (int i = 2; i < 8; ++i) {
        lines << QStringLiteral("# Key%1: v").arg(i);
    }
    lines << QString() << "# Comment"
          << "def clicked; end";
    for (int i = 11; i < 40; ++i) {
        lines << (i % 2 ? QString() : QStringLiteral("x%1 = 1").arg(i));
    }
    const QString text = lines.join(u'\n');
    const auto rewrite = [&](bool python, bool stripped) {
        return DevelopActionController::rewrittenText("# NEW\n", text, python, stripped);
    };
    const QString kept = rewrite(false, false);
    EXPECT_TRUE(kept.startsWith("# NEW\n\n# Comment\ndef clicked; end\n\nx12"));
    EXPECT_TRUE(kept.endsWith("x38 = 1\n")) << "only the final line end goes";
    // Stripped: comments go, and so do the blank lines at 16-22 and 33 (Ruby); others stay.
    const QString bare = rewrite(false, true);
    EXPECT_FALSE(bare.contains("# Comment"));
    EXPECT_TRUE(bare.contains("x14 = 1\n\nx16 = 1\nx18 = 1\nx20 = 1\nx22 = 1\n\nx24 = 1"));
    EXPECT_TRUE(bare.contains("x32 = 1\nx34 = 1\n\nx36 = 1"));
    EXPECT_TRUE(rewrite(true, true).contains("x32 = 1\n\nx34 = 1\nx36 = 1"));
    // A blank line before index 6 does not end the old header; one at index 6 does.
    EXPECT_EQ(DevelopActionController::rewrittenText(
                  "# H\n", QStringLiteral(HDR "# Name: A\n\n# C: c\nx\ny\n\nbody"), false, false),
              "# H\n\nbody");
}

TEST_F(ParserTest, RewriteMetaDataReplacesTheHeaderOnDisk)
{
    const QString script = add(userDir(), "R.skbundle/action.rb",
                               HDR "# Name: R\n# a: 1\n# b: 2\n# c: 3\n# d: 4\n\nputs 'hi'\n");
    QFile::setPermissions(script, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    ASSERT_TRUE(DevelopActionController::rewriteMetaData(QStringLiteral(HDR "# Name: New\n"),
                                                         script, false));
    EXPECT_EQ(parser.processPath(QFileInfo(script).path())->actionName, "New");
    QFile file(script);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(), QByteArray(HDR "# Name: New\n\nputs 'hi'\n"));
    EXPECT_TRUE(QFileInfo(script).isExecutable());
    LogCapture log;
    EXPECT_FALSE(DevelopActionController::rewriteMetaData("# H\n", script + ".missing", false));
    EXPECT_TRUE(log.contains("Error reading file at "));
}

TEST_F(ParserTest, DevelopSheetRefusalsAndMissingTemplate)
{
    add(userDir(), "taken.skelvo", header("Taken"));
    DevelopActionController controller(parser, engine->settings, engine->alerts);
    DevelopActionRequest request;
    request.name = "Fresh";
    request.clicked = request.dragged = false;
    EXPECT_EQ(controller.refusalFor(request), "Action must handle at least one event.");
    request.dragged = true;
    request.handlesFiles = request.handlesText = false;
    EXPECT_EQ(controller.refusalFor(request), "Action must handle at least one dragging type.");
    request.handlesText = true;
    request.name = "Taken";
    EXPECT_TRUE(controller.refusalFor(request));
    QString error;
    EXPECT_FALSE(controller.createAction(request, true, &error));
    EXPECT_TRUE(engine.alerts().alerts.isEmpty());
    request.name = "Fresh";
    EXPECT_FALSE(controller.refusalFor(request));
    // This parser's internal folder has no templates.
    EXPECT_FALSE(controller.createAction(request, true, &error));
    ASSERT_EQ(engine.alerts().alerts.size(), 1);
    EXPECT_EQ(engine.alerts().alerts[0].title, "Could not find action template.");
}

TEST(DevelopSheet, CreatesWorkingActionsFromTheShippedTemplates)
{
    TestEngine engine;
    const QString internal = SupportPaths::internalActionsDirectory();
    ActionFileParser parser(internal, SupportPaths::userActionsDirectory());
    DevelopActionController controller(parser, engine->settings, engine->alerts);
    for (const bool python : {false, true}) {
        QFile shipped(internal + QStringLiteral("/Custom Action %1 Template.skbundle/action.%2")
                                     .arg(python ? "Python" : "Ruby", python ? "py" : "rb"));
        ASSERT_TRUE(shipped.open(QIODevice::ReadOnly));
        // The template's own header is its first eleven lines.
        const QByteArray templateBody = shipped.readAll().split('\n').mid(11).join('\n');
        for (const bool comments : {true, false}) {
            DevelopActionRequest request;
            request.name = QStringLiteral("Made %1 %2").arg(python).arg(comments);
            request.description = request.creator = request.url = "x";
            request.handlesText = true;
            request.language = python ? DevelopActionRequest::Language::Python
                                      : DevelopActionRequest::Language::Ruby;
            QString error;
            const ActionFilePtr made = controller.createAction(request, comments, &error);
            ASSERT_TRUE(made) << error.toStdString();
            EXPECT_TRUE(made->isUserScript);
            EXPECT_EQ(made->isPythonAction, python);
            EXPECT_FALSE(made->metaValidationFailed) << made->metaValidationErrors.toStdString();
            EXPECT_TRUE(QFileInfo::exists(QDir(made->taskPath).filePath("icon.png")));
            QFile script(made->scriptPath());
            ASSERT_TRUE(script.open(QIODevice::ReadOnly));
            const QByteArray text = script.readAll();
            const QByteArray header = DevelopActionController::headerText(request).toUtf8();
            ASSERT_TRUE(text.startsWith(header));
            const QByteArray body = text.mid(header.size());
            if (comments) {
                EXPECT_EQ(body, templateBody);
            } else {
                // Clean code: no comment, one blank line after the header, never two.
                EXPECT_FALSE(QString::fromUtf8(body).contains(
                    QRegularExpression("^\\s*#", QRegularExpression::MultilineOption)));
                EXPECT_TRUE(body.startsWith("\n") && !body.startsWith("\n\n"));
                EXPECT_FALSE(body.contains("\n\n\n") || body.endsWith("\n\n")) << body.data();
                EXPECT_GE(body.count('\n'), 12);
            }
            const QStringList check = python ? QStringList{"-m", "py_compile"} : QStringList{"-c"};
            EXPECT_EQ(QProcess::execute(python ? "python3" : "ruby",
                                        check + QStringList{made->scriptPath()}),
                      0);
        }
    }
    EXPECT_TRUE(engine.alerts().alerts.isEmpty());
    EXPECT_EQ(engine->settings.stringValue(Settings::DevelopPreferredLanguage), "Python");
}

} // namespace
