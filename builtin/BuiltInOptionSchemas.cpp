#include "builtin/BuiltInOptionSchemas.h"

#include "actions/ActionOptionSchemas.h"
#include "builtin/RunScriptAction.h"
#include "core/UserUrl.h"

#include <QFileInfo>

namespace {

using Kind = ActionOptionSpec::Kind;

ActionOptionSpec option(const char* key, Kind kind, const char* help, const char* defaultValue = "")
{
    ActionOptionSpec entry;
    entry.key = QString::fromUtf8(key);
    entry.kind = kind;
    entry.help = QString::fromUtf8(help);
    entry.defaultValue = QString::fromUtf8(defaultValue);
    return entry;
}

ActionOptionSpec required(ActionOptionSpec entry)
{
    entry.required = true;
    return entry;
}

ActionOptionSpec integer(const char* key, const char* help, qlonglong minimum, qlonglong maximum,
                         const char* defaultValue = "")
{
    ActionOptionSpec entry = option(key, Kind::Integer, help, defaultValue);
    entry.minimum = minimum;
    entry.maximum = maximum;
    return entry;
}

ActionOptionSpec choice(const char* key, const char* help, QStringList choices,
                        const char* defaultValue = "")
{
    ActionOptionSpec entry = option(key, Kind::Choice, help, defaultValue);
    entry.choices = std::move(choices);
    return entry;
}

ActionOptionSpec secret(const char* key, const char* help, bool secondary = false)
{
    ActionOptionSpec entry = option(key, Kind::Secret, help);
    entry.keychainSecret = !secondary;
    entry.keychainSecondarySecret = secondary;
    return entry;
}

ActionOptionSpec patterned(ActionOptionSpec entry, const char* pattern)
{
    entry.pattern = QString::fromUtf8(pattern);
    return entry;
}

// Where outputs go: 0 next to the originals, 1 asked at run time, 2 the folder in `path`,
// 3 a fresh folder whose outputs join the Drop Bar.
const QStringList OutputFolderChoices{QStringLiteral("0"), QStringLiteral("1"), QStringLiteral("2"),
                                      QStringLiteral("3")};
const QStringList ImageFormats{
    QStringLiteral("png"),  QStringLiteral("jpg"),  QStringLiteral("jpeg"),
    QStringLiteral("webp"), QStringLiteral("tiff"), QStringLiteral("tif"),
    QStringLiteral("gif"),  QStringLiteral("heic"), QStringLiteral("heif")};

// In the order `sk` lists them.
QList<std::pair<QString, QList<ActionOptionSpec>>> schemas()
{
    struct Ordered {
        QList<std::pair<QString, QList<ActionOptionSpec>>> list;
        void insert(const QString& name, QList<ActionOptionSpec> entries)
        {
            list.append({name, std::move(entries)});
        }
    } map;
    {
        map.insert(QStringLiteral("ChooseApplication"),
                   {required(option("path", Kind::Path,
                                    "The application to open: a .desktop file or an executable"))});
        map.insert(QStringLiteral("ChooseFile"),
                   {required(option("path", Kind::Path, "The file to open"))});
        map.insert(QStringLiteral("ChooseScript"),
                   {required(option("path", Kind::Path,
                                    "The script to run; its first line must be a shebang"))});
        map.insert(QStringLiteral("AmazonS3Login"),
                   {required(option("username", Kind::Text, "Access key ID")),
                    secret("password", "Secret access key"),
                    required(option("bucket", Kind::Text, "Bucket name")),
                    option("region", Kind::Text, "Bucket region, such as us-east-1"),
                    option("server", Kind::Text, "S3-compatible endpoint host (optional)"),
                    option("remote_path", Kind::Text, "Folder inside the bucket"),
                    option("url", Kind::Url, "Public URL prefix for shared links")});
        map.insert(
            QStringLiteral("ResizeImages"),
            {integer("output_width",
                     "Maximum output width in pixels (at least one of width/height required)", 1,
                     100000),
             integer("output_height",
                     "Maximum output height in pixels (at least one of width/height required)", 1,
                     100000),
             integer("output_quality", "Output quality 0-100 (applies to JPG and WEBP)", 0, 100),
             choice("output_format", "Output image format", ImageFormats),
             choice("output_folder_option", "Where resized images are written", OutputFolderChoices,
                    "0"),
             option("path", Kind::Path, "Output folder (required when output_folder_option is 2)"),
             option("keep_originals", Kind::Boolean, "Keep the original images"),
             option("convert_only", Kind::Boolean, "Convert format only without resizing", "0")});
        map.insert(
            QStringLiteral("ExtendedLogin"),
            {required(option("server", Kind::Text, "Server host name or address")),
             integer("port", "Server port", 1, 65535, "22"),
             required(option("username", Kind::Text, "User name on the server")),
             secret("password", "Password (for password authentication)"),
             option("path", Kind::Path, "Private key file (for SSH key authentication)"),
             option("path_secondary", Kind::Path, "Public key file (for SSH key authentication)"),
             secret("passphrase", "Passphrase of the private key", true),
             option("remote_path", Kind::Text, "Folder on the server to upload into"),
             option("root_url", Kind::Url,
                    "Web address of remote_path; a single upload returns it joined with the "
                    "file's name")});
        map.insert(QStringLiteral("OpenURL"),
                   {required(option("url", Kind::Url,
                                    "The URL to open; text without a scheme opens as https://"))});
        map.insert(
            QStringLiteral("ConvertImages"),
            {required(choice("output_format", "Output image format", ImageFormats)),
             integer("output_quality", "Output quality 0-100 (applies to JPG and WEBP)", 0, 100),
             choice("output_folder_option", "Where converted images are written",
                    OutputFolderChoices, "0"),
             option("path", Kind::Path, "Output folder (required when output_folder_option is 2)"),
             option("keep_originals", Kind::Boolean, "Keep the original images")});
        map.insert(QStringLiteral("FileModification"),
                   {choice("metadata_scope", "What metadata to remove",
                           {QStringLiteral("all"), QStringLiteral("location")}),
                    option("preserve_color_profile", Kind::Boolean,
                           "Keep the ICC colour profile when removing all metadata"),
                    option("keep_originals", Kind::Boolean, "Keep the original files"),
                    choice("output_folder_option", "Where modified files are written",
                           OutputFolderChoices, "0"),
                    option("path", Kind::Path,
                           "Output folder (required when output_folder_option is 2)")});
        map.insert(QStringLiteral("Tinify"),
                   {secret("api_key", "Tinify API key (from tinypng.com/developers)"),
                    choice("output_folder_option", "Where compressed images are written",
                           OutputFolderChoices),
                    option("path", Kind::Path,
                           "Output folder (required when output_folder_option is 2)")});
        map.insert(QStringLiteral("TinyURL"),
                   {secret("api_key", "TinyURL API token (from tinyurl.com/app/dev)"),
                    patterned(option("domain", Kind::Text, "Short link domain (optional)"),
                              "[A-Za-z0-9.-]+")});
        map.insert(
            QStringLiteral("RunShortcut"),
            {required(option("shortcut_name", Kind::Text, "The name of the shortcut to run"))});
        map.insert(QStringLiteral("RunAppleScript"),
                   {required(option("script", Kind::Text, "The AppleScript source to run")),
                    choice("handles_option", "Whether the script handles clicks or drags",
                           {QStringLiteral("0"), QStringLiteral("1")})});
        map.insert(QStringLiteral("CreateNote"),
                   {option("folder", Kind::Text, "Notes folder the new note goes into"),
                    option("account", Kind::Text, "Notes account (optional)")});
        map.insert(QStringLiteral("FinderPath"),
                   {choice("path_format", "How copied paths are written",
                           {QStringLiteral("posix"), QStringLiteral("escaped"),
                            QStringLiteral("quoted"), QStringLiteral("url")}),
                    option("separator", Kind::Text, "Text between several paths")});
        map.insert(
            QStringLiteral("ImgBB"),
            {secret("api_key", "ImgBB API key (from api.imgbb.com)"),
             option("username", Kind::Text, "ImgBB username (optional)"),
             choice("auto_delete_option", "Whether uploaded images are automatically deleted",
                    {QStringLiteral("0"), QStringLiteral("1"), QStringLiteral("2")}),
             integer("auto_delete_interval",
                     "Auto-delete interval in seconds (used when auto_delete_option is 2, "
                     "default 300)",
                     60, 15552000)});
        map.insert(
            QStringLiteral("InstagramDownloader"),
            {required(option("path", Kind::Path, "Destination folder for downloaded posts"))});
        map.insert(QStringLiteral("ShortIO"),
                   {secret("api_key", "Short.io secret API key (from app.short.io)"),
                    required(patterned(option("domain", Kind::Text, "Short.io domain"),
                                       "[A-Za-z0-9.-]+"))});
        map.insert(
            QStringLiteral("VideoDownloader"),
            {required(option("path", Kind::Path, "Destination folder for downloaded videos")),
             choice(
                 "video_format",
                 "Automatic checks Mac playback; H.264 prefers compatible streams; Original "
                 "keeps the downloaded format",
                 {QStringLiteral("automatic"), QStringLiteral("h264"), QStringLiteral("original")}),
             choice("max_resolution", "Maximum video resolution",
                    {QStringLiteral("480"), QStringLiteral("720"), QStringLiteral("1080"),
                     QStringLiteral("1440"), QStringLiteral("2160"), QStringLiteral("best")},
                    "1080"),
             option("convert_h264", Kind::Boolean,
                    "Legacy option: true selects H.264, false selects Original; video_format "
                    "takes precedence")});
        map.insert(QStringLiteral("APIKey"), {secret("api_key", "API key of the service")});
        map.insert(QStringLiteral("UsernameAPIKey"),
                   {required(option("username", Kind::Text, "User name at the service")),
                    secret("api_key", "API key of the service")});
    }
    return map.list;
}

std::optional<ActionOptionValidationError> schemaRules(const QString& name,
                                                       const QList<ActionOptionSpec>& entries,
                                                       const QMap<QString, QString>& given,
                                                       const QMap<QString, QString>& values)
{
    auto error = [](const QString& message) {
        return std::optional<ActionOptionValidationError>(ActionOptionValidationError{message});
    };
    if (name == u"ResizeImages" && !given.contains(QStringLiteral("output_width")) &&
        !given.contains(QStringLiteral("output_height"))) {
        return error(
            QStringLiteral("At least one of 'output_width' or 'output_height' is required."));
    }
    const bool hasFolderChoice =
        std::any_of(entries.cbegin(), entries.cend(), [](const ActionOptionSpec& entry) {
            return entry.key == u"output_folder_option";
        });
    if (hasFolderChoice && values.value(QStringLiteral("output_folder_option")) == u"2") {
        const QString path = values.value(QStringLiteral("path"));
        if (path.isEmpty()) {
            return error(
                QStringLiteral("Option 'path' is required when 'output_folder_option' is 2."));
        }
        if (!QFileInfo(path).isDir()) {
            return error(
                QStringLiteral("Option 'path' must name an existing folder: %1").arg(path));
        }
    }
    if (name == u"ExtendedLogin") {
        const bool hasKey = given.contains(QStringLiteral("path"));
        const bool hasPublicKey = given.contains(QStringLiteral("path_secondary"));
        if (hasKey != hasPublicKey) {
            return error(QStringLiteral("SSH key authentication needs both 'path' (private key) "
                                        "and 'path_secondary' (public key)."));
        }
        if (given.contains(QStringLiteral("passphrase")) && !(hasKey && hasPublicKey)) {
            return error(QStringLiteral("'passphrase' only applies to SSH key authentication; "
                                        "also provide 'path' and 'path_secondary'."));
        }
    }
    if (name == u"ChooseScript") {
        const QString path = values.value(QStringLiteral("path"));
        const QFileInfo script(path);
        if (!script.exists()) {
            return error(QStringLiteral("The script '") + path +
                         QStringLiteral("' does not exist."));
        }
        if (!script.isFile()) {
            return error(QStringLiteral("The selected script must be a file."));
        }
        if (!script.isReadable()) {
            return error(QStringLiteral("The selected script is not readable."));
        }
        if (RunScriptAction::shebangCommand(path).isEmpty()) {
            return error(QStringLiteral("The selected script needs a shebang on its first line, "
                                        "such as #!/bin/zsh or #!/usr/bin/env python3."));
        }
    }
    if (name == u"OpenURL") {
        const std::optional<QUrl> url = urlFromUserText(values.value(QStringLiteral("url")));
        if (url && url->isLocalFile() && !QFileInfo::exists(url->toLocalFile())) {
            return error(QStringLiteral("'") + url->toLocalFile() +
                         QStringLiteral("' for option 'url' does not exist."));
        }
    }
    return std::nullopt;
}

} // namespace

void registerBuiltInOptionSchemas()
{
    for (const auto& [name, entries] : schemas()) {
        OptionSchema schema;
        schema.name = name;
        schema.options = entries;
        schema.rules = [name = name, entries = entries](const QMap<QString, QString>& given,
                                                        const QMap<QString, QString>& values) {
            return schemaRules(name, entries, given, values);
        };
        ActionOptionSchemas::registerSchema(schema);
    }
}
