#include "actions/ActionFileParser.h"

#include "core/AlertHelper.h"
#include "core/Log.h"
#include "core/SupportPaths.h"
#include "core/WindowPresenter.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStringDecoder>

namespace {

const QString ActionInfoMarker = QStringLiteral("# Skelvo Action Info");
const QString DestinationInfoMarker = QStringLiteral("# Skelvo Destination Info");

QString cleanAbsolute(const QString& path)
{
    return QDir::cleanPath(QFileInfo(path).absoluteFilePath());
}

} // namespace

ActionFileParser& ActionFileParser::shared()
{
    static ActionFileParser parser;
    return parser;
}

ActionFileParser::ActionFileParser()
    : ActionFileParser(SupportPaths::internalActionsDirectory(),
                       SupportPaths::userActionsDirectory())
{}

ActionFileParser::ActionFileParser(QString internalActionsDirectory, QString userActionsDirectory)
    : m_internalDirectory(std::move(internalActionsDirectory))
    , m_userDirectory(std::move(userActionsDirectory))
{}

void ActionFileParser::parseHeader(const QString& text, ActionFile& record)
{
    bool inHeader = false;
    // Split at "\n" only: a CRLF file keeps "\r" on its opening line, which then does not
    // match the marker, and the file has no header.
    for (const QString& line : text.split(u'\n')) {
        if (!inHeader) {
            if (line == ActionInfoMarker || line == DestinationInfoMarker) {
                inHeader = true;
                record.metaDataNotFound = false;
            }
            continue;
        }
        if (line.trimmed().isEmpty()) {
            break;
        }
        const QStringList pieces = line.split(QStringLiteral(": "));
        if (pieces.size() < 2) {
            continue;
        }
        // The key loses its first two characters whatever they are; only the second piece
        // is the value, so text after a further ": " is dropped.
        record.applyHeaderField(pieces.at(0).mid(2), pieces.at(1).trimmed());
    }
}

std::optional<ActionFile> ActionFileParser::processPath(const QString& path) const
{
    const QFileInfo info(path);
    if (info.fileName().startsWith(u'.')) {
        return std::nullopt;
    }
    ActionFile record;
    const QString suffix = info.suffix().toLower();
    QString script;
    if (info.isDir() && suffix == u"skbundle") {
        const QDir bundle(path);
        record.isBundle = true;
        record.bundlePath = path;
        record.isPythonAction = QFileInfo::exists(bundle.filePath(QStringLiteral("action.py")));
        script = bundle.filePath(record.isPythonAction ? QStringLiteral("action.py")
                                                       : QStringLiteral("action.rb"));
    } else if (info.isFile() && suffix == u"skelvo") {
        script = path;
    } else {
        return std::nullopt;
    }
    record.taskPath = path;
    record.isUserScript = !m_userDirectory.isEmpty() &&
                          cleanAbsolute(info.absolutePath()) == cleanAbsolute(m_userDirectory);

    QFile file(script);
    if (!file.open(QIODevice::ReadOnly)) {
        Log::error(QStringLiteral("Error reading file at %1\n%2").arg(script, file.errorString()));
        return std::nullopt;
    }
    QStringDecoder decoder(QStringDecoder::Utf8);
    const QString text = decoder.decode(file.readAll());
    if (decoder.hasError()) {
        Log::error(QStringLiteral("Error reading file at %1\n%2")
                       .arg(script, QStringLiteral("The file is not valid UTF-8 text.")));
        return std::nullopt;
    }
    parseHeader(text, record);
    return record;
}

void ActionFileParser::scanFolder(const QString& folder, ActionFileList& into) const
{
    const QDir dir(folder);
    const QStringList entries = dir.entryList(
        QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot | QDir::System, QDir::Name);
    for (const QString& entry : entries) {
        std::optional<ActionFile> record = processPath(dir.filePath(entry));
        if (!record) {
            continue;
        }
        QString errors;
        record->metaValidationFailed = !record->validateMetaData(nullptr, &errors);
        record->metaValidationErrors = errors;
        // Without a name nothing can refer to the action; other problems are shown when
        // the action is used.
        if (record->actionName.isEmpty()) {
            continue;
        }
        into << std::make_shared<ActionFile>(std::move(*record));
    }
}

ActionFileList ActionFileParser::actionFiles()
{
    if (m_cache) {
        return *m_cache;
    }
    ActionFileList records;
    scanFolder(m_internalDirectory, records);
    scanFolder(m_userDirectory, records);
    if (m_sharingServices) {
        records << m_sharingServices();
    }
    if (m_builtInActions) {
        records << m_builtInActions();
    }
    if (!m_skipDuplicatesCheck) {
        checkForDuplicates(records);
    }
    m_cache = records;
    return records;
}

void ActionFileParser::invalidateActionsCache()
{
    m_cache.reset();
}

void ActionFileParser::showDuplicatesAlert(const QString& title, const QString& message)
{
    if (m_alerts) {
        m_alerts->showCriticalAlertWithTitle(title, message);
    } else {
        HeadlessAlertPresenter().present({Alert::Style::Critical, title, message, {}, nullptr}, {});
    }
}

void ActionFileParser::checkForDuplicates(const ActionFileList& records)
{
    QSet<QString> seen;
    QStringList duplicates;
    for (const ActionFilePtr& record : records) {
        if (seen.contains(record->actionName)) {
            duplicates << record->actionName;
        } else {
            seen.insert(record->actionName);
        }
    }
    const bool unchanged = duplicates == m_lastDuplicates;
    m_lastDuplicates = duplicates;
    if (unchanged || duplicates.isEmpty()) {
        return;
    }
    if (duplicates.size() == 1) {
        const QString& name = duplicates.first();
        showDuplicatesAlert(
            QStringLiteral("Duplicate action bundles named '%1' detected").arg(name),
            QStringLiteral("There are currently multiple Skelvo action bundles with the name "
                           "'%1'.\n\nYou must either rename or delete one as each action bundle "
                           "must have a unique name.")
                .arg(name));
    } else {
        QString list;
        for (const QString& name : std::as_const(duplicates)) {
            list += QStringLiteral("-") + name + QStringLiteral("\n");
        }
        showDuplicatesAlert(
            QStringLiteral("Duplicate action bundle names detected"),
            QStringLiteral("The following action bundles have duplicates with the same "
                           "name:\n\n%1\nYou must either rename or delete the duplicates.")
                .arg(list));
    }
    if (m_windows) {
        m_windows->openSettingsPage(QStringLiteral("Add-on Actions"));
    }
}

ActionFilePtr ActionFileParser::getActionWithType(const QString& name)
{
    for (const ActionFilePtr& record : actionFiles()) {
        if (record->actionName == name) {
            return record;
        }
    }
    return nullptr;
}

ActionFilePtr ActionFileParser::getActionWithTaskPath(const QString& path)
{
    for (const ActionFilePtr& record : actionFiles()) {
        if (record->taskPath == path) {
            return record;
        }
    }
    return nullptr;
}

ActionFileList ActionFileParser::getUserActionFiles()
{
    ActionFileList user;
    for (const ActionFilePtr& record : actionFiles()) {
        if (record->isUserScript) {
            user << record;
        }
    }
    return user;
}

ActionFilePtr ActionFileParser::actionNamed(const ActionFileList& records, const QString& name)
{
    for (const ActionFilePtr& record : records) {
        if (record->actionName == name) {
            return record;
        }
    }
    return nullptr;
}

ActionFileList ActionFileParser::getActionsWithPreferredOrder(
    const QStringList& names, const std::function<bool(const QString&)>& isAlreadyAdded)
{
    ActionFileList rest = actionFiles();
    ActionFileList front;
    for (const QString& name : names) {
        const auto it = std::find_if(rest.begin(), rest.end(),
                                     [&](const ActionFilePtr& r) { return r->actionName == name; });
        if (it == rest.end()) {
            continue;
        }
        const ActionFilePtr record = *it;
        rest.erase(it);
        if (record->isSharingService && isAlreadyAdded && isAlreadyAdded(name)) {
            continue;
        }
        front << record;
    }
    return front + rest;
}

QString ActionFileParser::getUniqueNameForCopiedActionWithPrefix(const QString& prefix)
{
    if (!getActionWithType(prefix)) {
        return prefix;
    }
    for (qlonglong n = 2;; ++n) {
        const QString candidate = QStringLiteral("%1 %2").arg(prefix).arg(n);
        if (!getActionWithType(candidate)) {
            return candidate;
        }
    }
}

void ActionFileParser::deleteActionFiles(const ActionFileList& records)
{
    for (const ActionFilePtr& record : records) {
        const QFileInfo info(record->taskPath);
        if (!info.exists() && !info.isSymLink()) {
            continue;
        }
        bool removed = false;
        QString reason;
        if (info.isDir() && !info.isSymLink()) {
            removed = QDir(record->taskPath).removeRecursively();
            reason = QStringLiteral("Could not remove every file in the folder");
        } else {
            QFile file(record->taskPath);
            removed = file.remove();
            reason = file.errorString();
        }
        if (!removed) {
            Log::error(QStringLiteral("Error deleting user action with path %1: %2")
                           .arg(record->taskPath, reason));
        }
    }
}

void ActionFileParser::setSharingServiceProvider(std::function<ActionFileList()> provider)
{
    m_sharingServices = std::move(provider);
    invalidateActionsCache();
}

void ActionFileParser::setBuiltInActionProvider(std::function<ActionFileList()> provider)
{
    m_builtInActions = std::move(provider);
    invalidateActionsCache();
}
