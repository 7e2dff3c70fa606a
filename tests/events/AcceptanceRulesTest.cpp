// The acceptance rules as a table: each row is one drag over one tile.
#include "events/AcceptanceRules.h"

#include "actions/ActionFile.h"
#include "actions/ActionFileParser.h"
#include "builtin/ActionInfo.h"
#include "store/GridAction.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

// The action a tile refers to, described by its header lines; none for the special tiles.
enum class Kind {
    None,
    Files,
    Text,
    FilesAndText,
    ClicksOnly,
    DragsOnly,
    NoEventsLine,
    Invalid,
    AppleScript
};

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
    const char* const lines[] = {"",
                                 "Files",
                                 "Text\n# Events: Dragged, Clicked",
                                 "Files, Text",
                                 "Files\n# Events: Clicked",
                                 "Files\n# Events: Dragged",
                                 "Files",
                                 "Files"};
    auto record = std::make_shared<ActionFile>();
    ActionFileParser::parseHeader(
        QStringLiteral("# Skelvo Action Info\n# Name: A\n# Description: d\n%1# Handles: %2\n")
            .arg(kind == Kind::Invalid ? QString() : QStringLiteral("# Creator: c\n# URL: u\n"),
                 QString::fromLatin1(lines[static_cast<int>(kind)])),
        *record);
    QString errors;
    record->metaValidationFailed = !record->validateMetaData(nullptr, &errors);
    return record;
}

const QStringList SomeFile = {QStringLiteral("/tmp/some file.txt")};

// A tile from a short name: "add", "files:ID" and "text:ID" (Drop Bars), or an action type
// (id 5).
GridAction tileOf(const char* name)
{
    const QString s = QString::fromLatin1(name);
    GridAction tile;
    tile.aId = 5;
    if (s == u"add") {
        tile.aId = Identifiers::AddToGridTileId;
    } else if (s.startsWith(u"files:") || s.startsWith(u"text:")) {
        tile.type = s.startsWith(u"files:") ? QStringLiteral("Drop Bar Files")
                                            : QStringLiteral("Drop Bar Text");
        tile.aId = s.section(u':', 1).toLongLong();
    } else {
        tile.type = s;
    }
    return tile;
}

// Offered formats, with short names for the common ones.
QStringList formatsOf(const char* names)
{
    static const QMap<QString, QString> shortNames = {
        {QStringLiteral("uri"), QStringLiteral("text/uri-list")},
        {QStringLiteral("plain"), QStringLiteral("text/plain")},
        {QStringLiteral("png"), QStringLiteral("image/png")},
        {QStringLiteral("stack"), QStringLiteral("com.quarnet.skelvo.stack-item")},
        {QStringLiteral("tile"), QStringLiteral("com.quarnet.SKActionPboardType")}};
    QStringList formats;
    for (const QString& f : QString::fromLatin1(names).split(u' ', Qt::SkipEmptyParts)) {
        formats << shortNames.value(f, f);
    }
    return formats;
}

// Applies the flags of a row: "files" (paths offered), "within=ID" (dragged from that Drop
// Bar), "general" (the clipboard), "missing"/"exists" (the path variable), "net", "h0"/"h1".
void applyFlags(const char* flags, GridAction& tile, DragInfo& drag, const QTemporaryDir& dir)
{
    for (const QString& f : QString::fromLatin1(flags).split(u' ', Qt::SkipEmptyParts)) {
        if (f == u"files") {
            drag.filePaths = SomeFile;
        } else if (f.startsWith(u"within=")) {
            drag.fromWithinSkelvo = true;
            drag.sourceDropbarId = f.section(u'=', 1).toLongLong();
        } else if (f == u"general") {
            drag.isGeneralPasteboard = true;
        } else if (f == u"missing" || f == u"exists") {
            tile.extraVariables.insert(GridAction::PathVariable,
                                       f == u"exists" ? dir.path()
                                                      : dir.filePath(QStringLiteral("gone")));
        } else if (f == u"net") {
            tile.extraVariables.insert(GridAction::NetworkVolumeVariable, QStringLiteral("1"));
        } else if (f == u"h0" || f == u"h1") {
            tile.extraVariables.insert(AcceptanceRules::HandlesOptionVariable, f.mid(1));
        }
    }
}

struct DragRow {
    Kind kind;
    const char* tile;
    const char* formats;
    const char* flags;
    bool expected;
};

const DragRow DragRows[] = {
    // Refusals that come first.
    {Kind::None, "files:100001", "stack uri", "files within=100001", false},
    {Kind::None, "files:100002", "stack uri", "files within=100001", true},
    {Kind::Files, "Files", "tile uri", "files", false},
    {Kind::None, "add", "tile uri", "files", false},
    // "Add to Grid".
    {Kind::None, "add", "uri", "files", true},
    {Kind::None, "add", "plain", "", false},
    {Kind::None, "add", "uri plain", "", false},
    // Drop Bars from outside.
    {Kind::None, "files:100002", "uri", "files", true},
    {Kind::None, "files:100002", "XdndDirectSave0", "", true},
    {Kind::None, "files:100002", "plain", "", false},
    {Kind::None, "text:100003", "plain", "", true},
    {Kind::None, "text:100003", "text/plain;charset=utf-8", "", true},
    {Kind::None, "text:100003", "plain uri", "files", false},
    {Kind::None, "text:100003", "uri", "files", false},
    {Kind::None, "files:100000", "plain", "", true},
    {Kind::None, "files:100000", "uri", "files", true},
    // Drop Bars from inside the application.
    {Kind::None, "files:100000", "uri", "files within=100004", false},
    {Kind::None, "text:100003", "plain", "within=100003", false},
    {Kind::None, "text:100003", "plain", "within=100004", true},
    // The file rule.
    {Kind::Files, "A", "uri", "files", true},
    {Kind::Files, "A", "XdndDirectSave0", "", true},
    {Kind::Files, "A", "application/vnd.portal.filetransfer", "", true},
    {Kind::Files, "A", "com.apple.mail.PasteboardTypeMessageTransfer", "", true},
    {Kind::Files, "A", "plain", "", false},
    {Kind::Files, "A", "png", "", false},
    {Kind::NoEventsLine, "A", "uri", "files", true},
    {Kind::ClicksOnly, "A", "uri", "files", false},
    {Kind::Files, "A", "uri", "files missing", false},
    {Kind::Files, "A", "uri", "files missing net", true},
    {Kind::Files, "A", "uri", "files exists", true},
    {Kind::Invalid, "A", "uri", "files", false},
    {Kind::AppleScript, "Run AppleScript", "uri", "files h1", true},
    {Kind::AppleScript, "Run AppleScript", "uri", "files h0", false},
    {Kind::None, "Gone", "uri plain", "files", false},
    // The text rule.
    {Kind::Text, "A", "plain", "", true},
    {Kind::Text, "A", "plain image/tiff", "", false},
    {Kind::Text, "A", "plain application/x-qt-image", "", false},
    {Kind::Text, "A", "uri", "files", false},
    {Kind::Text, "A", "plain", "missing", false},
    {Kind::FilesAndText, "A", "plain png", "", false},
    {Kind::FilesAndText, "A", "uri plain", "files", true},
    // The clipboard's image.
    {Kind::Text, "A", "png", "general", true},
    {Kind::Text, "A", "png", "", false},
};

// Clipboard rows: the same drag description, answered by canHandleClipboard.
const DragRow ClipboardRows[] = {
    {Kind::Files, "A", "uri", "files", true},   {Kind::Text, "A", "uri plain", "files", false},
    {Kind::Files, "A", "png", "", true},        {Kind::Text, "A", "png plain", "", false},
    {Kind::Text, "A", "plain", "", true},       {Kind::Files, "A", "plain", "", false},
    {Kind::Files, "A", "uri plain", "", false}, {Kind::Files, "A", "", "", false},
};

} // namespace

TEST(AcceptanceRules, DragsAndTheClipboard)
{
    QTemporaryDir dir;
    const auto check = [&](const DragRow& row, bool clipboard) {
        SCOPED_TRACE(testing::Message() << static_cast<int>(row.kind) << " " << row.tile << " ["
                                        << row.formats << "] " << row.flags);
        GridAction tile = tileOf(row.tile);
        DragInfo drag;
        drag.formats = formatsOf(row.formats);
        applyFlags(row.flags, tile, drag, dir);
        const ActionFilePtr action = actionOf(row.kind);
        if (clipboard) {
            drag.isGeneralPasteboard = true;
            EXPECT_EQ(AcceptanceRules::canHandleClipboard(tile, action.get(), drag), row.expected);
        } else {
            EXPECT_EQ(AcceptanceRules::canHandleDrag(tile, action.get(), drag), row.expected);
        }
    };
    for (const DragRow& row : DragRows) {
        check(row, false);
    }
    for (const DragRow& row : ClipboardRows) {
        check(row, true);
    }
}

TEST(AcceptanceRules, Clicks)
{
    using Route = AcceptanceRules::ClickRoute;
    struct ClickRow {
        Kind kind;
        const char* tile;
        const char* flags;
        Route expected;
        bool onlyConfig;
    };
    const ClickRow rows[] = {
        {Kind::None, "add", "", Route::AddActionMenu, false},
        {Kind::None, "files:100002", "", Route::DropBarTile, false},
        {Kind::None, "text:100003", "", Route::DropBarTile, false},
        {Kind::None, "files:100000", "", Route::DropBarPinned, false},
        {Kind::None, "Gone", "", Route::OpenConfig, false},
        {Kind::Files, "A", "", Route::RunScript, false},
        {Kind::ClicksOnly, "A", "", Route::RunScript, false},
        {Kind::Text, "A", "", Route::RunScript, false},
        {Kind::DragsOnly, "A", "", Route::OpenConfig, true},
        {Kind::ClicksOnly, "A", "missing", Route::OpenConfig, false},
        {Kind::Invalid, "A", "", Route::OpenConfig, false},
        {Kind::Files, "Rename & Copy Files", "", Route::OpenConfig, false},
        {Kind::Files, "Rename & Move Files", "", Route::OpenConfig, false},
        {Kind::AppleScript, "Run AppleScript", "h1", Route::RunBuiltIn, false},
        {Kind::AppleScript, "Run AppleScript", "h0", Route::OpenConfig, true},
    };
    QTemporaryDir dir;
    for (const ClickRow& row : rows) {
        SCOPED_TRACE(testing::Message()
                     << row.tile << " " << row.flags << " " << static_cast<int>(row.kind));
        GridAction tile = tileOf(row.tile);
        DragInfo unused;
        applyFlags(row.flags, tile, unused, dir);
        const ActionFilePtr action = actionOf(row.kind);
        EXPECT_EQ(AcceptanceRules::routeClick(tile, action.get()), row.expected);
        EXPECT_EQ(AcceptanceRules::clickWouldOnlyOpenConfig(tile, action.get()), row.onlyConfig);
    }
}
