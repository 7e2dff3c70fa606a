// The acceptance rules as a table: each row is one drag over one tile.
#include "events/AcceptanceRules.h"

#include "actions/ActionFile.h"
#include "actions/ActionFileParser.h"
#include "builtin/ActionInfo.h"
#include "events/PasteboardTypes.h"
#include "store/GridAction.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <optional>
#include <ostream>

namespace {

const QString UriList = QStringLiteral("text/uri-list");
const QString Plain = QStringLiteral("text/plain");
const QString Png = QStringLiteral("image/png");

// The action a tile refers to, described by its header lines; none for the special tiles.
enum class Kind { None, Files, Text, FilesAndText, ClicksOnly, NoEventsLine, Invalid, AppleScript };

ActionFilePtr actionOf(Kind kind)
{
    if (kind == Kind::None) {
        return nullptr;
    }
    if (kind == Kind::AppleScript) {
        ActionInfo info;
        info.name = QStringLiteral("Run AppleScript");
        return std::make_shared<ActionFile>(builtInActionFile(info));
    }
    QString lines = QStringLiteral("# Skelvo Action Info\n# Name: A\n# Description: d\n");
    if (kind != Kind::Invalid) {
        lines += QStringLiteral("# Creator: c\n# URL: u\n");
    }
    switch (kind) {
    case Kind::Text:
        lines += QStringLiteral("# Handles: Text\n# Events: Dragged, Clicked\n");
        break;
    case Kind::FilesAndText:
        lines += QStringLiteral("# Handles: Files, Text\n");
        break;
    case Kind::ClicksOnly:
        lines += QStringLiteral("# Handles: Files\n# Events: Clicked\n");
        break;
    default:
        lines += QStringLiteral("# Handles: Files\n");
        break;
    }
    auto record = std::make_shared<ActionFile>();
    ActionFileParser::parseHeader(lines, *record);
    QString errors;
    record->metaValidationFailed = !record->validateMetaData(nullptr, &errors);
    return record;
}

struct DragRow {
    const char* name;
    Kind kind;
    QString tileType;
    ActionId tileId;
    QStringList formats;
    QStringList filePaths;
    bool expected;
    bool fromWithin = false;
    DropbarId source = 0;
    bool general = false;
    QString pathVariable = {}; // "missing" for a gone path
    std::optional<QString> handlesOption = std::nullopt;
    bool networkVolume = false;
};

void PrintTo(const DragRow& row, std::ostream* out)
{
    *out << row.name;
}

class DragAcceptance : public testing::TestWithParam<DragRow> {
protected:
    QTemporaryDir dir;
};

const QStringList SomeFile = {QStringLiteral("/tmp/some file.txt")};
const QString Files = QStringLiteral("Drop Bar Files");
const QString Text = QStringLiteral("Drop Bar Text");
const QString Stack = QStringLiteral("com.quarnet.skelvo.stack-item");
const QString Tile = QStringLiteral("com.quarnet.SKActionPboardType");
const ActionId Add = Identifiers::AddToGridTileId;

const DragRow DragRows[] = {
    // Refusals that come first.
    {"StackItemOntoItsOwnDropBar",
     Kind::None,
     Files,
     100001,
     {Stack, UriList},
     SomeFile,
     false,
     true,
     100001},
    {"StackItemOntoAnotherDropBar",
     Kind::None,
     Files,
     100002,
     {Stack, UriList},
     SomeFile,
     true,
     true,
     100001},
    {"TileMovedInsideTheGrid", Kind::Files, "Files", 5, {Tile, UriList}, SomeFile, false},
    {"TileMovedOntoAddToGrid", Kind::None, {}, Add, {Tile, UriList}, SomeFile, false},
    // "Add to Grid".
    {"AddToGridTakesFiles", Kind::None, {}, Add, {UriList}, SomeFile, true},
    {"AddToGridRefusesText", Kind::None, {}, Add, {Plain}, {}, false},
    {"AddToGridRefusesWebLinks", Kind::None, {}, Add, {UriList, Plain}, {}, false},
    // Drop Bars from outside.
    {"FilesDropBarTakesFiles", Kind::None, Files, 100002, {UriList}, SomeFile, true},
    {"FilesDropBarTakesPromisedFiles", Kind::None, Files, 100002, {"XdndDirectSave0"}, {}, true},
    {"FilesDropBarRefusesText", Kind::None, Files, 100002, {Plain}, {}, false},
    {"TextDropBarTakesText", Kind::None, Text, 100003, {Plain}, {}, true},
    {"TextDropBarTakesTextWithCharset",
     Kind::None,
     Text,
     100003,
     {"text/plain;charset=utf-8"},
     {},
     true},
    {"TextDropBarRefusesTextWithFiles",
     Kind::None,
     Text,
     100003,
     {Plain, UriList},
     SomeFile,
     false},
    {"TextDropBarRefusesFiles", Kind::None, Text, 100003, {UriList}, SomeFile, false},
    {"FirstDropBarTakesText", Kind::None, Files, 100000, {Plain}, {}, true},
    {"FirstDropBarTakesFilesAsFilesBar", Kind::None, Files, 100000, {UriList}, SomeFile, true},
    // Drop Bars from inside the application.
    {"InsideOntoFirstDropBarFallsThrough",
     Kind::None,
     Files,
     100000,
     {UriList},
     SomeFile,
     false,
     true,
     100004},
    {"InsideOntoItsSourceFallsThrough", Kind::None, Text, 100003, {Plain}, {}, false, true, 100003},
    {"InsideOntoAnotherTextDropBar", Kind::None, Text, 100003, {Plain}, {}, true, true, 100004},
    // The file rule.
    {"FilesActionTakesFileUrls", Kind::Files, "A", 5, {UriList}, SomeFile, true},
    {"FilesActionTakesDirectSave", Kind::Files, "A", 5, {"XdndDirectSave0"}, {}, true},
    {"FilesActionTakesPortalFiles",
     Kind::Files,
     "A",
     5,
     {"application/vnd.portal.filetransfer"},
     {},
     true},
    {"FilesActionTakesMailMessages",
     Kind::Files,
     "A",
     5,
     {"com.apple.mail.PasteboardTypeMessageTransfer"},
     {},
     true},
    {"FilesActionRefusesText", Kind::Files, "A", 5, {Plain}, {}, false},
    {"FilesActionRefusesAnImage", Kind::Files, "A", 5, {Png}, {}, false},
    {"NoEventsLineTakesDrags", Kind::NoEventsLine, "A", 5, {UriList}, SomeFile, true},
    {"ClicksOnlyRefusesEveryDrag", Kind::ClicksOnly, "A", 5, {UriList}, SomeFile, false},
    {"MissingPathRefuses",
     Kind::Files,
     "A",
     5,
     {UriList},
     SomeFile,
     false,
     false,
     0,
     false,
     "missing"},
    {"MissingPathOnNetworkVolumeStillTakes",
     Kind::Files,
     "A",
     5,
     {UriList},
     SomeFile,
     true,
     false,
     0,
     false,
     "missing",
     std::nullopt,
     true},
    {"ExistingPathTakes",
     Kind::Files,
     "A",
     5,
     {UriList},
     SomeFile,
     true,
     false,
     0,
     false,
     "exists"},
    {"InvalidMetadataRefuses", Kind::Invalid, "A", 5, {UriList}, SomeFile, false},
    {"AppleScriptHandlingFilesTakesFiles",
     Kind::AppleScript,
     "Run AppleScript",
     5,
     {UriList},
     SomeFile,
     true,
     false,
     0,
     false,
     {},
     QStringLiteral("1")},
    {"AppleScriptNotHandlingFilesRefuses",
     Kind::AppleScript,
     "Run AppleScript",
     5,
     {UriList},
     SomeFile,
     false,
     false,
     0,
     false,
     {},
     QStringLiteral("0")},
    {"UnknownActionRefuses", Kind::None, "Gone", 5, {UriList, Plain}, SomeFile, false},
    // The text rule.
    {"TextActionTakesText", Kind::Text, "A", 5, {Plain}, {}, true},
    {"TextActionRefusesTextWithAnImage", Kind::Text, "A", 5, {Plain, "image/tiff"}, {}, false},
    {"TextActionRefusesTextWithQtImage",
     Kind::Text,
     "A",
     5,
     {Plain, "application/x-qt-image"},
     {},
     false},
    {"TextActionRefusesFiles", Kind::Text, "A", 5, {UriList}, SomeFile, false},
    {"TextActionWithMissingPathRefuses",
     Kind::Text,
     "A",
     5,
     {Plain},
     {},
     false,
     false,
     0,
     false,
     "missing"},
    {"FilesAndTextRefusesTextWithAnImage", Kind::FilesAndText, "A", 5, {Plain, Png}, {}, false},
    {"FilesAndTextTakesFilesWithText",
     Kind::FilesAndText,
     "A",
     5,
     {UriList, Plain},
     SomeFile,
     true},
    // The clipboard's image.
    {"ClipboardImageIsTaken", Kind::Text, "A", 5, {Png}, {}, true, false, 0, true},
    {"DraggedImageIsNot", Kind::Text, "A", 5, {Png}, {}, false, false, 0, false},
};

} // namespace

TEST_P(DragAcceptance, Row)
{
    const DragRow& row = GetParam();
    GridAction tile;
    tile.aId = row.tileId;
    tile.type = row.tileType;
    if (row.pathVariable == u"missing") {
        tile.extraVariables.insert(GridAction::PathVariable, dir.filePath(QStringLiteral("gone")));
    } else if (row.pathVariable == u"exists") {
        tile.extraVariables.insert(GridAction::PathVariable, dir.path());
    }
    if (row.handlesOption) {
        tile.extraVariables.insert(AcceptanceRules::HandlesOptionVariable, *row.handlesOption);
    }
    if (row.networkVolume) {
        tile.extraVariables.insert(GridAction::NetworkVolumeVariable, QStringLiteral("1"));
    }
    DragInfo drag;
    drag.formats = row.formats;
    drag.filePaths = row.filePaths;
    drag.fromWithinSkelvo = row.fromWithin;
    drag.sourceDropbarId = row.source;
    drag.isGeneralPasteboard = row.general;
    const ActionFilePtr action = actionOf(row.kind);
    EXPECT_EQ(AcceptanceRules::canHandleDrag(tile, action.get(), drag), row.expected);
}

INSTANTIATE_TEST_SUITE_P(Rules, DragAcceptance, testing::ValuesIn(DragRows),
                         [](const testing::TestParamInfo<DragRow>& row) {
                             return std::string(row.param.name);
                         });

TEST(PasteboardTypes, FileTypesAreThePromisesThenUrlsThenMail)
{
    const QStringList types = PasteboardTypes::validFileDragTypes();
    ASSERT_GE(types.size(), 3);
    EXPECT_EQ(types.mid(0, types.size() - 2), PasteboardTypes::filePromiseTypes());
    EXPECT_EQ(types.at(types.size() - 2), UriList);
    EXPECT_EQ(types.last(), QStringLiteral("com.apple.mail.PasteboardTypeMessageTransfer"));
    EXPECT_EQ(PasteboardTypes::validTextDragTypes(), QStringList{Plain});
    EXPECT_FALSE(PasteboardTypes::isTextDragType(QStringLiteral("text/plainish")));
    EXPECT_FALSE(PasteboardTypes::isTextDragType(QStringLiteral("text/html")));
    EXPECT_TRUE(PasteboardTypes::isImageType(QStringLiteral("image/jpeg")));
    EXPECT_FALSE(PasteboardTypes::isImageType(QStringLiteral("text/uri-list")));
}

namespace {

struct ClipboardRow {
    const char* name;
    Kind kind;
    QStringList formats;
    QStringList filePaths;
    bool expected;
};

const ClipboardRow ClipboardRows[] = {
    {"FilesForAFilesAction", Kind::Files, {UriList}, SomeFile, true},
    {"FilesForATextAction", Kind::Text, {UriList, Plain}, SomeFile, false},
    {"ImageForAFilesAction", Kind::Files, {Png}, {}, true},
    {"ImageWithTextForATextAction", Kind::Text, {Png, Plain}, {}, false},
    {"TextForATextAction", Kind::Text, {Plain}, {}, true},
    {"TextForAFilesAction", Kind::Files, {Plain}, {}, false},
    {"WebLinkForAFilesAction", Kind::Files, {UriList, Plain}, {}, false},
    {"NothingForAFilesAction", Kind::Files, {}, {}, false},
};

void PrintTo(const ClipboardRow& row, std::ostream* out)
{
    *out << row.name;
}

class ClipboardAcceptance : public testing::TestWithParam<ClipboardRow> {};

} // namespace

TEST_P(ClipboardAcceptance, Row)
{
    const ClipboardRow& row = GetParam();
    GridAction tile;
    tile.aId = 7;
    tile.type = QStringLiteral("A");
    DragInfo clipboard;
    clipboard.isGeneralPasteboard = true;
    clipboard.formats = row.formats;
    clipboard.filePaths = row.filePaths;
    const ActionFilePtr action = actionOf(row.kind);
    EXPECT_EQ(AcceptanceRules::canHandleClipboard(tile, action.get(), clipboard), row.expected);
}

INSTANTIATE_TEST_SUITE_P(Rules, ClipboardAcceptance, testing::ValuesIn(ClipboardRows),
                         [](const testing::TestParamInfo<ClipboardRow>& row) {
                             return std::string(row.param.name);
                         });

namespace {

struct ClickRow {
    const char* name;
    Kind kind;
    QString tileType;
    ActionId tileId;
    AcceptanceRules::ClickRoute expected;
    bool onlyConfig = false;
    QString pathVariable = {};
    std::optional<QString> handlesOption = std::nullopt;
};

using Route = AcceptanceRules::ClickRoute;

const ClickRow ClickRows[] = {
    {"AddToGridShowsTheMenu", Kind::None, {}, Add, Route::AddActionMenu},
    {"FilesDropBar", Kind::None, Files, 100002, Route::DropBarTile},
    {"TextDropBar", Kind::None, Text, 100003, Route::DropBarTile},
    {"FirstDropBar", Kind::None, Files, 100000, Route::DropBarPinned},
    {"UnknownAction", Kind::None, "Gone", 5, Route::OpenConfig},
    {"NoEventsLineRunsOnClick", Kind::Files, "A", 5, Route::RunScript},
    {"ClicksOnlyScript", Kind::ClicksOnly, "A", 5, Route::RunScript},
    {"TextActionRunsOnClick", Kind::Text, "A", 5, Route::RunScript},
    {"MissingPathOpensConfig", Kind::ClicksOnly, "A", 5, Route::OpenConfig, false, "missing"},
    {"InvalidMetadataOpensConfig", Kind::Invalid, "A", 5, Route::OpenConfig},
    {"RenameAndCopyOpensConfig", Kind::Files, "Rename & Copy Files", 5, Route::OpenConfig},
    {"RenameAndMoveOpensConfig", Kind::Files, "Rename & Move Files", 5, Route::OpenConfig},
    {"AppleScriptHandlingFilesRuns",
     Kind::AppleScript,
     "Run AppleScript",
     5,
     Route::RunBuiltIn,
     false,
     {},
     QStringLiteral("1")},
    {"AppleScriptOtherwiseOnlyConfigures",
     Kind::AppleScript,
     "Run AppleScript",
     5,
     Route::OpenConfig,
     true,
     {},
     QStringLiteral("0")},
};

void PrintTo(const ClickRow& row, std::ostream* out)
{
    *out << row.name;
}

class ClickRouting : public testing::TestWithParam<ClickRow> {
protected:
    QTemporaryDir dir;
};

} // namespace

TEST_P(ClickRouting, Row)
{
    const ClickRow& row = GetParam();
    GridAction tile;
    tile.aId = row.tileId;
    tile.type = row.tileType;
    if (row.pathVariable == u"missing") {
        tile.extraVariables.insert(GridAction::PathVariable, dir.filePath(QStringLiteral("gone")));
    }
    if (row.handlesOption) {
        tile.extraVariables.insert(AcceptanceRules::HandlesOptionVariable, *row.handlesOption);
    }
    const ActionFilePtr action = actionOf(row.kind);
    EXPECT_EQ(AcceptanceRules::routeClick(tile, action.get()), row.expected);
    EXPECT_EQ(AcceptanceRules::clickWouldOnlyOpenConfig(tile, action.get()), row.onlyConfig);
}

INSTANTIATE_TEST_SUITE_P(Rules, ClickRouting, testing::ValuesIn(ClickRows),
                         [](const testing::TestParamInfo<ClickRow>& row) {
                             return std::string(row.param.name);
                         });

TEST(ClickRouting, AScriptThatTakesNoClicksOnlyOpensItsSettings)
{
    auto action = std::make_shared<ActionFile>();
    ActionFileParser::parseHeader(
        QStringLiteral("# Skelvo Action Info\n# Name: A\n# Description: d\n# Handles: Files\n"
                       "# Creator: c\n# URL: u\n# Events: Dragged\n"),
        *action);
    GridAction tile;
    tile.aId = 5;
    tile.type = QStringLiteral("A");
    EXPECT_TRUE(AcceptanceRules::clickWouldOnlyOpenConfig(tile, action.get()));
    EXPECT_EQ(AcceptanceRules::routeClick(tile, action.get()), Route::OpenConfig);
}

TEST(ClickRouting, SharingServices)
{
    GridAction tile;
    tile.aId = 5;
    ActionFile service;
    service.isSharingService = true;
    service.metaDataNotFound = false;
    service.sharingServiceName = QStringLiteral("Email");
    EXPECT_EQ(AcceptanceRules::routeClick(tile, &service), Route::SharingService);
    EXPECT_FALSE(AcceptanceRules::clickWouldOnlyOpenConfig(tile, &service));

    service.sharingServiceName = QStringLiteral("AirDrop");
    // This desktop has no AirDrop application, so the service can only be configured.
    EXPECT_EQ(AcceptanceRules::routeClick(tile, &service), Route::OpenConfig);

    service.sharingServiceName = QStringLiteral("Email");
    service.applyHeaderField(QStringLiteral("Events"), QStringLiteral("Dragged"));
    EXPECT_EQ(AcceptanceRules::routeClick(tile, &service), Route::OpenConfig);
}
