#include "builtin/BuiltInActionCatalog.h"

#include "builtin/ConvertImagesAction.h"
#include "builtin/MoveToTrashAction.h"
#include "builtin/OpenApplicationAction.h"
#include "builtin/OpenFileAction.h"
#include "builtin/OpenUrlAction.h"
#include "builtin/ResizeImagesAction.h"
#include "builtin/RunAppleScriptAction.h"
#include "builtin/RunScriptAction.h"
#include "builtin/RunShortcutAction.h"
#include "builtin/SftpUploadAction.h"
#include "core/SupportPaths.h"

#include <QDir>
#include <QStandardPaths>

namespace {

using Handles = ActionInfo::Handles;
using Event = ActionInfo::Event;

template <typename T> std::function<BuiltInAction*()> classOf()
{
    return [] { return new T(); };
}

ActionInfo entry(const char* name, const char* description, QList<Handles> handles,
                 QList<Event> events, const char* optionsNib, const QString& icon)
{
    ActionInfo info;
    info.name = QString::fromUtf8(name);
    info.actionDescription = QString::fromUtf8(description);
    info.handles = std::move(handles);
    info.events = std::move(events);
    info.menuCategory = 1;
    info.optionsNib = QString::fromUtf8(optionsNib);
    info.iconPath = icon;
    return info;
}

} // namespace

QString BuiltInActionCatalog::imagePath(const QString& name)
{
    return QDir(SupportPaths::resourcesDirectory())
        .filePath(QStringLiteral("Images/%1.png").arg(name));
}

BuiltInActionCatalog::BuiltInActionCatalog()
{
    ActionInfo openApplication =
        entry("Open Application",
              "Allows you to open dropped files with a selected application. You can also launch "
              "the application by clicking on it in the grid.",
              {Handles::Files}, {Event::Dragged, Event::Clicked}, "ChooseApplication",
              imagePath(QStringLiteral("app")));
    openApplication.usesSelectedItemNameAndIcon = true;
    openApplication.actionClass = classOf<OpenApplicationAction>();
    m_availableActions << openApplication;

    ActionInfo resize = entry("Resize Images",
                              "Resizes dropped images to fit within a given width and height.\n\n"
                              "Can also reduce image file size when outputting to JPG or WEBP by "
                              "changing image quality.",
                              {Handles::Files}, {Event::Dragged}, "ResizeImages",
                              imagePath(QStringLiteral("resize")));
    ActionInfo convert = entry("Convert Images",
                               "Converts dropped images to a different format.\n\n"
                               "Supports images in PNG, JPG, WEBP, TIFF, GIF and HEIC formats.",
                               {Handles::Files}, {Event::Dragged}, "ConvertImages",
                               imagePath(QStringLiteral("convert-images")));
    resize.actionClass = classOf<ResizeImagesAction>();
    convert.actionClass = classOf<ConvertImagesAction>();
    m_availableActions << resize << convert;

    ActionInfo openFile = entry("Open File", "Opens a selected file with the default application.",
                                {Handles::Nothing}, {Event::Clicked}, "ChooseFile",
                                imagePath(QStringLiteral("openfile")));
    openFile.usesSelectedItemNameAndIcon = true;
    openFile.actionClass = classOf<OpenFileAction>();
    m_availableActions << openFile;

    ActionInfo openUrl = entry(
        "Open URL", "Open a website or app link, including custom URL schemes.", {Handles::Nothing},
        {Event::Clicked}, "OpenURL", imagePath(QStringLiteral("openurl")));
    openUrl.actionClass = classOf<OpenUrlAction>();
    m_availableActions << openUrl;

    ActionInfo trash =
        entry("Move to Trash", "Moves dragged items to the trash.", {Handles::Files},
              {Event::Clicked, Event::Dragged}, "", imagePath(QStringLiteral("trash")));
    trash.skipConfig = true;
    trash.actionClass = classOf<MoveToTrashAction>();
    m_availableActions << trash;

    ActionInfo shortcut = entry("Run Shortcut", "Allows you to run a selected macOS Shortcut.",
                                {Handles::Files, Handles::Text}, {Event::Clicked, Event::Dragged},
                                "RunShortcut", imagePath(QStringLiteral("shortcuts")));
    shortcut.actionClass = classOf<RunShortcutAction>();
    m_availableActions << shortcut;

    ActionInfo script = entry("Run Script",
                              "Allows you to run a selected script.\n\nIf files are dropped on "
                              "the action, they are passed to the script.",
                              {Handles::Files}, {Event::Clicked, Event::Dragged}, "ChooseScript",
                              imagePath(QStringLiteral("run-script")));
    script.actionClass = classOf<RunScriptAction>();
    m_availableActions << script;

    ActionInfo sftp = entry("SFTP Upload",
                            "Allows files to be uploaded to a remote SFTP server.\n\nIf the option "
                            "key is held down then files are zipped up before uploading.",
                            {Handles::Files}, {Event::Dragged, Event::TestConnection},
                            "ExtendedLogin", imagePath(QStringLiteral("sftp")));
    sftp.defaultPort = QStringLiteral("22");
    sftp.keyModifiers = QStringLiteral("option");
    sftp.actionClass = classOf<SftpUploadAction>();
    m_availableActions << sftp;

    // Handles files so that its handles_option can admit drops; clicks always run it.
    ActionInfo appleScript =
        entry("Run AppleScript",
              "Allows you to run provided AppleScript.\n\nIf you choose to handle dragged files "
              "then files dropped on the action are set as a list of POSIX files in the "
              "draggedFiles list variable.",
              {Handles::Files}, {Event::Clicked}, "", QString());
    // The panel and icon only where the script interpreter exists; the entry stays either way.
    if (!RunAppleScriptAction::interpreterPath().isEmpty()) {
        appleScript.optionsNib = QStringLiteral("RunAppleScript");
        appleScript.iconPath = imagePath(QStringLiteral("applescript"));
    }
    appleScript.actionClass = classOf<RunAppleScriptAction>();
    m_availableActions << appleScript;
}

std::optional<ActionInfo> BuiltInActionCatalog::getActionWithName(const QString& name) const
{
    for (const ActionInfo& info : m_availableActions) {
        if (info.name == name) {
            return info;
        }
    }
    return std::nullopt;
}

std::optional<ActionInfo>
BuiltInActionCatalog::getActionWithGridAction(const GridAction& gridAction) const
{
    return getActionWithName(gridAction.type);
}
