#include "actions/ActionFileJson.h"

#include "actions/ActionFileParser.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>

namespace {

QJsonArray toArray(const QStringList& list)
{
    return QJsonArray::fromStringList(list);
}

// The script processPath() reads for an action at `path`, or empty when `path` is no action.
// Kept in step with the parser so that a failed parse can be told apart from "not an action".
QString scriptOfAction(const QFileInfo& info)
{
    if (info.fileName().startsWith(u'.')) {
        return {};
    }
    const QString suffix = info.suffix().toLower();
    if (info.isDir() && suffix == u"skbundle") {
        const QDir bundle(info.filePath());
        const QString python = bundle.filePath(QStringLiteral("action.py"));
        return QFileInfo::exists(python) ? python : bundle.filePath(QStringLiteral("action.rb"));
    }
    if (info.isFile() && suffix == u"skelvo") {
        return info.filePath();
    }
    return {};
}

QString readFailure(const QString& script)
{
    QFile file(script);
    if (!file.open(QIODevice::ReadOnly)) {
        return QStringLiteral("Could not read the action script at %1: %2")
            .arg(script, file.errorString());
    }
    return QStringLiteral("Could not read the action script at %1: it is not valid UTF-8 text")
        .arg(script);
}

QJsonObject failure(const QString& path, const QString& error)
{
    return QJsonObject{{QStringLiteral("path"), path},
                       {QStringLiteral("valid"), false},
                       {QStringLiteral("error"), error}};
}

} // namespace

namespace ActionFileJson {

QJsonObject toJson(const ActionFile& record)
{
    const QJsonObject queries{
        {QStringLiteral("handlesClicked"), record.handlesClicked()},
        {QStringLiteral("handlesDragged"), record.handlesDragged()},
        {QStringLiteral("handlesTestConnection"), record.handlesTestConnection()},
        {QStringLiteral("handlesAuthorize"), record.handlesAuthorize()},
        {QStringLiteral("handlesFilesDragType"), record.handlesFilesDragType()},
        {QStringLiteral("handlesTextDragType"), record.handlesTextDragType()},
        {QStringLiteral("optionKeyModifierEnabled"), record.optionKeyModifierEnabled()},
        {QStringLiteral("commandKeyModifierEnabled"), record.commandKeyModifierEnabled()},
        {QStringLiteral("shiftKeyModifierEnabled"), record.shiftKeyModifierEnabled()},
        {QStringLiteral("controlKeyModifierEnabled"), record.controlKeyModifierEnabled()},
        {QStringLiteral("handlesString"), record.handlesString()},
        {QStringLiteral("optionsNibExists"), record.optionsNibExists()},
        {QStringLiteral("optionsNibNeedsKeychain"), record.optionsNibNeedsKeychain()},
    };
    return QJsonObject{
        {QStringLiteral("actionName"), record.actionName},
        {QStringLiteral("actionDescription"), record.actionDescription},
        {QStringLiteral("handles"), toArray(record.handles())},
        {QStringLiteral("events"), toArray(record.events)},
        {QStringLiteral("eventsDefined"), record.eventsDefined},
        {QStringLiteral("enabledKeyModifiers"), toArray(record.enabledKeyModifiers)},
        {QStringLiteral("keyModifiersDefined"), record.keyModifiersDefined},
        {QStringLiteral("creator"), record.creator},
        {QStringLiteral("url"), record.url},
        {QStringLiteral("iconUrl"), record.iconUrl},
        {QStringLiteral("optionsNib"), record.optionsNib},
        {QStringLiteral("optionsTitle"), record.optionsTitle},
        {QStringLiteral("defaultPort"), record.defaultPort},
        {QStringLiteral("uniqueID"), record.uniqueID},
        {QStringLiteral("version"), record.version},
        {QStringLiteral("minSkelvoVersion"), record.minSkelvoVersion},
        {QStringLiteral("rubyPath"), record.rubyPath},
        {QStringLiteral("pythonPath"), record.pythonPath},
        {QStringLiteral("authScope"), record.authScope},
        {QStringLiteral("useSelectedItemNameAndIcon"), record.useSelectedItemNameAndIcon},
        {QStringLiteral("skipConfig"), record.skipConfig},
        {QStringLiteral("runsSandboxed"), record.runsSandboxed},
        {QStringLiteral("skipValidation"), record.skipValidation},
        {QStringLiteral("forceX86Ruby"), record.forceX86Ruby},
        {QStringLiteral("taskPath"), record.taskPath},
        {QStringLiteral("bundlePath"), record.bundlePath},
        {QStringLiteral("isBundle"), record.isBundle},
        {QStringLiteral("isPythonAction"), record.isPythonAction},
        {QStringLiteral("isUserScript"), record.isUserScript},
        {QStringLiteral("metaDataNotFound"), record.metaDataNotFound},
        {QStringLiteral("metaValidationFailed"), record.metaValidationFailed},
        {QStringLiteral("metaValidationErrors"), record.metaValidationErrors},
        {QStringLiteral("isBuiltInAction"), record.isBuiltInAction},
        {QStringLiteral("builtInIcon"), record.builtInIcon},
        {QStringLiteral("isSharingService"), record.isSharingService},
        {QStringLiteral("sharingServiceName"), record.sharingServiceName},
        {QStringLiteral("sharingServiceIcon"), record.sharingServiceIcon},
        {QStringLiteral("queries"), queries},
        {QStringLiteral("scriptPath"), record.scriptPath()},
        {QStringLiteral("iconPath"), record.iconPath()},
    };
}

QJsonObject inspect(const QString& path)
{
    // A trailing slash (as shell completion leaves after a folder) would hide the bundle's
    // name and extension from the parser.
    const QString cleaned =
        path.isEmpty() ? path : QDir::cleanPath(QFileInfo(path).absoluteFilePath());
    const QFileInfo info(cleaned);
    const QString script = cleaned.isEmpty() ? QString() : scriptOfAction(info);
    if (script.isEmpty()) {
        return failure(cleaned, QStringLiteral("No action bundle (.skbundle folder) or single-file "
                                               "action (.skelvo file) at %1")
                                    .arg(cleaned.isEmpty() ? path : cleaned));
    }

    // The default folders, so that isUserScript says what a scan would.
    const ActionFileParser parser;
    std::optional<ActionFile> record = parser.processPath(cleaned);
    if (!record) {
        return failure(cleaned, readFailure(script));
    }

    QString joined;
    const bool valid = record->validateMetaData(nullptr, &joined);
    record->metaValidationFailed = !valid;
    record->metaValidationErrors = joined;

    QJsonArray messages;
    for (const QString& line : joined.split(u'\n', Qt::SkipEmptyParts)) {
        messages.append(line.startsWith(u'-') ? line.mid(1) : line);
    }
    return QJsonObject{{QStringLiteral("path"), cleaned},
                       {QStringLiteral("action"), toJson(*record)},
                       {QStringLiteral("valid"), valid},
                       {QStringLiteral("validationErrors"), messages},
                       {QStringLiteral("validationText"), joined}};
}

} // namespace ActionFileJson
