#include "actions/ActionFile.h"
#include "builtin/ActionInfo.h"
#include "builtin/BuiltInActionCatalog.h"
#include "builtin/RunAppleScriptAction.h"
#include "tests/support/TestHome.h"

#include <QFile>

#include <gtest/gtest.h>

namespace {

struct Expected {
    const char* name;
    const char* description;
    const char* optionsNib;
    QStringList handles;
    const char* events;
    const char* icon;
};

const QList<Expected> ExpectedCatalogue{
    {"Open Application",
     "Allows you to open dropped files with a selected application. You can also launch the "
     "application by clicking on it in the grid.",
     "ChooseApplication",
     {DragTypes::Files},
     "Dragged,Clicked",
     "app"},
    {"Resize Images",
     "Resizes dropped images to fit within a given width and height.\n\nCan also reduce image "
     "file size when outputting to JPG or WEBP by changing image quality.",
     "ResizeImages",
     {DragTypes::Files},
     "Dragged",
     "resize"},
    {"Convert Images",
     "Converts dropped images to a different format.\n\nSupports images in PNG, JPG, WEBP, TIFF, "
     "GIF and HEIC formats.",
     "ConvertImages",
     {DragTypes::Files},
     "Dragged",
     "convert-images"},
    {"Open File",
     "Opens a selected file with the default application.",
     "ChooseFile",
     {DragTypes::None},
     "Clicked",
     "openfile"},
    {"Open URL",
     "Open a website or app link, including custom URL schemes.",
     "OpenURL",
     {DragTypes::None},
     "Clicked",
     "openurl"},
    {"Move to Trash",
     "Moves dragged items to the trash.",
     "",
     {DragTypes::Files},
     "Dragged,Clicked",
     "trash"},
    {"Run Shortcut",
     "Allows you to run a selected macOS Shortcut.",
     "RunShortcut",
     {DragTypes::Files, DragTypes::Text},
     "Dragged,Clicked",
     "shortcuts"},
    {"Run Script",
     "Allows you to run a selected script.\n\nIf files are dropped on the action, they are "
     "passed to the script.",
     "ChooseScript",
     {DragTypes::Files},
     "Dragged,Clicked",
     "run-script"},
    {"SFTP Upload",
     "Allows files to be uploaded to a remote SFTP server.\n\nIf the option key is held down "
     "then files are zipped up before uploading.",
     "ExtendedLogin",
     {DragTypes::Files},
     "Dragged,TestConnection",
     "sftp"},
    {"Run AppleScript",
     "Allows you to run provided AppleScript.\n\nIf you choose to handle dragged files then "
     "files dropped on the action are set as a list of POSIX files in the draggedFiles list "
     "variable.",
     "RunAppleScript",
     {DragTypes::Files},
     "Clicked",
     "applescript"},
};

TEST(BuiltInActionCatalog, ListsTheTenActionsInOrderWithTheirTexts)
{
    const BuiltInActionCatalog catalog;
    const QList<ActionInfo>& actions = catalog.availableActions();
    ASSERT_EQ(actions.size(), ExpectedCatalogue.size());
    const bool hasAppleScript = !RunAppleScriptAction::interpreterPath().isEmpty();
    for (qsizetype i = 0; i < actions.size(); ++i) {
        const Expected& expected = ExpectedCatalogue.at(i);
        const ActionInfo& info = actions.at(i);
        SCOPED_TRACE(expected.name);
        EXPECT_EQ(info.name, QString::fromUtf8(expected.name));
        EXPECT_EQ(info.actionDescription, QString::fromUtf8(expected.description));
        EXPECT_EQ(info.menuCategory, 1);
        const bool isAppleScript = info.name == u"Run AppleScript";
        if (isAppleScript && !hasAppleScript) {
            // Without the interpreter the entry stays, without a panel or icon.
            EXPECT_TRUE(info.optionsNib.isEmpty());
            EXPECT_TRUE(info.iconPath.isEmpty());
        } else {
            EXPECT_EQ(info.optionsNib, QString::fromUtf8(expected.optionsNib));
            EXPECT_TRUE(info.iconPath.endsWith(
                QStringLiteral("Images/%1.png").arg(QString::fromUtf8(expected.icon))));
        }
        if (info.name != u"Resize Images" && info.name != u"Convert Images" &&
            info.name != u"SFTP Upload") {
            EXPECT_TRUE(static_cast<bool>(info.actionClass));
        }
    }
}

TEST(BuiltInActionCatalog, PresentsEachEntryAsABuiltInActionFile)
{
    const BuiltInActionCatalog catalog;
    for (qsizetype i = 0; i < catalog.availableActions().size(); ++i) {
        const ActionInfo& info = catalog.availableActions().at(i);
        const Expected& expected = ExpectedCatalogue.at(i);
        SCOPED_TRACE(expected.name);
        const ActionFile record = builtInActionFile(info);
        EXPECT_TRUE(record.isBuiltInAction);
        EXPECT_EQ(record.actionName, info.name);
        EXPECT_EQ(record.actionDescription, info.actionDescription);
        EXPECT_EQ(record.handles(), expected.handles);
        EXPECT_EQ(record.events.join(u','), QString::fromUtf8(expected.events));
        EXPECT_EQ(record.optionsNib, info.optionsNib);
        EXPECT_EQ(record.iconPath(), info.iconPath.isEmpty() ? record.iconPath() : info.iconPath);
    }
    const ActionFile trash =
        builtInActionFile(*catalog.getActionWithName(QStringLiteral("Move to Trash")));
    EXPECT_TRUE(trash.skipConfig);
    EXPECT_TRUE(trash.handlesClicked());
    const ActionFile sftp =
        builtInActionFile(*catalog.getActionWithName(QStringLiteral("SFTP Upload")));
    EXPECT_EQ(sftp.defaultPort, QStringLiteral("22"));
    EXPECT_TRUE(sftp.optionKeyModifierEnabled());
    EXPECT_TRUE(sftp.handlesTestConnection());
    EXPECT_TRUE(builtInActionFile(*catalog.getActionWithName(QStringLiteral("Open Application")))
                    .useSelectedItemNameAndIcon);
}

TEST(BuiltInActionCatalog, FindsEntriesByExactName)
{
    const BuiltInActionCatalog catalog;
    EXPECT_TRUE(catalog.getActionWithName(QStringLiteral("Run Script")));
    EXPECT_FALSE(catalog.getActionWithName(QStringLiteral("run script")));
    GridAction action;
    action.type = QStringLiteral("Open URL");
    ASSERT_TRUE(catalog.getActionWithGridAction(action));
    EXPECT_EQ(catalog.getActionWithGridAction(action)->name, QStringLiteral("Open URL"));
}

} // namespace

TEST(BuiltInActionCatalog, EveryIconIsAShippedImage)
{
    const BuiltInActionCatalog catalog;
    for (const ActionInfo& info : catalog.availableActions()) {
        if (info.iconPath.isEmpty()) {
            continue; // an action whose system application is absent
        }
        QFile icon(info.iconPath);
        ASSERT_TRUE(icon.open(QIODevice::ReadOnly)) << info.iconPath.toStdString();
        EXPECT_TRUE(icon.read(8).startsWith("\x89PNG")) << info.iconPath.toStdString();
    }
}
