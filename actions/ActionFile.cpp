#include "actions/ActionFile.h"

#include "actions/ActionOptionSchemas.h"
#include "core/AlertHelper.h"
#include "core/SupportPaths.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

// Only "no", in any case, turns a Yes/No key off; everything else (even "false") is yes.
bool lenientYes(const QString& value)
{
    return value.toLower() != QStringLiteral("no");
}

// Trims blanks and tabs but keeps line ends, so a stray carriage return still spoils a piece.
QString trimBlanks(const QString& text)
{
    qsizetype start = 0;
    qsizetype end = text.size();
    auto isBlank = [](QChar c) { return c == u' ' || c == u'\t'; };
    while (start < end && isBlank(text.at(start))) {
        ++start;
    }
    while (end > start && isBlank(text.at(end - 1))) {
        --end;
    }
    return text.mid(start, end - start);
}

QStringList splitList(const QString& value)
{
    QStringList entries;
    for (const QString& piece : value.split(u',')) {
        const QString entry = piece.trimmed();
        if (!entry.isEmpty()) {
            entries << entry;
        }
    }
    return entries;
}

bool containsLowered(const QStringList& entries, const QString& lowered)
{
    for (const QString& entry : entries) {
        if (entry.toLower() == lowered) {
            return true;
        }
    }
    return false;
}

// A cheap check that a file holds an image the desktop can load: the signature of one of
// the formats icons come in, and for PNG a header with a non-zero size.
bool isLoadableImage(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return false;
    }
    const QByteArray head = file.read(32);
    if (head.startsWith("\x89PNG\r\n\x1a\n")) {
        if (head.size() < 24 || head.mid(12, 4) != "IHDR") {
            return false;
        }
        const QByteArray size = head.mid(16, 8);
        return size.left(4) != QByteArray(4, '\0') && size.mid(4) != QByteArray(4, '\0');
    }
    return head.startsWith("\xff\xd8\xff") || head.startsWith("GIF8") ||
           (head.startsWith("RIFF") && head.mid(8, 4) == "WEBP") || head.startsWith("II*\0") ||
           head.startsWith("MM\0*");
}

} // namespace

QStringList ActionFile::handles() const
{
    return m_handles.isEmpty() ? QStringList{DragTypes::None} : m_handles;
}

void ActionFile::setHandles(const QStringList& dragTypes)
{
    m_handles.clear();
    for (const QString& type : dragTypes) {
        if (type != DragTypes::None && !m_handles.contains(type)) {
            m_handles << type;
        }
    }
}

void ActionFile::applyHeaderField(const QString& key, const QString& value)
{
    if (key == u"Name") {
        actionName = value;
    } else if (key == u"Description") {
        actionDescription = QString(value).replace(QStringLiteral("\\n"), QStringLiteral("\n"));
    } else if (key == u"Handles") {
        QStringList types;
        for (const QString& piece : value.split(u',')) {
            const QString entry = trimBlanks(piece);
            if (entry == u"Files" || entry == u"NSFilenamesPboardType") {
                types << DragTypes::Files;
            } else if (entry == u"Text" || entry == u"NSStringPboardType") {
                types << DragTypes::Text;
            }
        }
        setHandles(types);
    } else if (key == u"Events") {
        events << splitList(value);
        eventsDefined = true;
    } else if (key == u"KeyModifiers") {
        enabledKeyModifiers << splitList(value);
        keyModifiersDefined = true;
    } else if (key == u"Creator") {
        creator = value;
    } else if (key == u"URL") {
        url = value;
    } else if (key == u"IconURL") {
        iconUrl = value;
    } else if (key == u"OptionsNIB") {
        optionsNib = value;
    } else if (key == u"OptionsTitle") {
        optionsTitle = value;
    } else if (key == u"DefaultPort") {
        defaultPort = value;
    } else if (key == u"UniqueID") {
        uniqueID = value;
    } else if (key == u"UseSelectedItemNameAndIcon") {
        useSelectedItemNameAndIcon = lenientYes(value);
    } else if (key == u"SkipConfig") {
        skipConfig = lenientYes(value);
    } else if (key == u"RunsSandboxed") {
        runsSandboxed = lenientYes(value);
    } else if (key == u"Version") {
        version = value;
    } else if (key == u"MinSkelvoVersion") {
        minSkelvoVersion = value;
    } else if (key == u"RubyPath") {
        rubyPath = value;
    } else if (key == u"PythonPath") {
        pythonPath = value;
    } else if (key == u"AuthScope") {
        authScope = value;
    } else if (key == u"SkipValidation") {
        skipValidation = lenientYes(value);
    } else if (key == u"ForceX86Ruby") {
        forceX86Ruby = lenientYes(value);
    }
}

bool ActionFile::handlesClicked() const
{
    return !eventsDefined || containsLowered(events, QStringLiteral("clicked"));
}

bool ActionFile::handlesDragged() const
{
    return !eventsDefined || containsLowered(events, QStringLiteral("dragged"));
}

bool ActionFile::handlesTestConnection() const
{
    return containsLowered(events, QStringLiteral("testconnection"));
}

bool ActionFile::handlesAuthorize() const
{
    return containsLowered(events, QStringLiteral("authorize"));
}

bool ActionFile::handlesFilesDragType() const
{
    return m_handles.contains(DragTypes::Files) && handlesDragged();
}

bool ActionFile::handlesTextDragType() const
{
    return m_handles.contains(DragTypes::Text) && handlesDragged();
}

bool ActionFile::optionKeyModifierEnabled() const
{
    return keyModifiersDefined && containsLowered(enabledKeyModifiers, QStringLiteral("option"));
}

bool ActionFile::commandKeyModifierEnabled() const
{
    return keyModifiersDefined && containsLowered(enabledKeyModifiers, QStringLiteral("command"));
}

bool ActionFile::shiftKeyModifierEnabled() const
{
    return keyModifiersDefined && containsLowered(enabledKeyModifiers, QStringLiteral("shift"));
}

bool ActionFile::controlKeyModifierEnabled() const
{
    return keyModifiersDefined && containsLowered(enabledKeyModifiers, QStringLiteral("control"));
}

QString ActionFile::handlesString() const
{
    if (!handlesDragged()) {
        return QObject::tr("Clicks");
    }
    const bool files = m_handles.contains(DragTypes::Files);
    const bool text = m_handles.contains(DragTypes::Text);
    if (files && text) {
        return QObject::tr("Files & Text");
    }
    if (files) {
        return QObject::tr("Files");
    }
    if (text) {
        return QObject::tr("Text");
    }
    return QObject::tr("Clicks");
}

QString ActionFile::scriptPath() const
{
    if (!isBundle) {
        return taskPath;
    }
    return QDir(taskPath).filePath(isPythonAction ? QStringLiteral("action.py")
                                                  : QStringLiteral("action.rb"));
}

QString ActionFile::iconPath() const
{
    if (isBundle) {
        const QString icon = QDir(bundlePath).filePath(QStringLiteral("icon.png"));
        if (isLoadableImage(icon)) {
            return icon;
        }
    } else if (isSharingService && !sharingServiceIcon.isEmpty()) {
        return sharingServiceIcon;
    } else if (isBuiltInAction && !builtInIcon.isEmpty()) {
        return builtInIcon;
    }
    return QDir(SupportPaths::resourcesDirectory()).filePath(QStringLiteral("Images/bundle.png"));
}

bool ActionFile::optionsNibExists() const
{
    return ActionOptionSchemas::find(optionsNib).has_value();
}

bool ActionFile::optionsNibNeedsKeychain() const
{
    const auto sheet = ActionOptionSchemas::find(optionsNib);
    return sheet && sheet->needsKeychainStorage;
}

QString ActionFile::keychainPasswordKey() const
{
    const auto sheet = ActionOptionSchemas::find(optionsNib);
    return sheet ? sheet->keychainPasswordKey : QString();
}

QMap<QString, QString> ActionFile::constantVariables() const
{
    const auto sheet = ActionOptionSchemas::find(optionsNib);
    return sheet ? sheet->constantVariables : QMap<QString, QString>();
}

bool ActionFile::validateMetaData(AlertHelper* displayErrorsTo, QString* validationErrors) const
{
    QStringList problems;
    if (metaDataNotFound) {
        problems << QStringLiteral("Section beginning with # Skelvo Action Info not found");
    } else {
        if (actionName.isEmpty()) {
            problems << QStringLiteral("Name field is missing");
        }
        if (actionDescription.isEmpty()) {
            problems << QStringLiteral("Description field is missing");
        }
        if (handlesDragged() && handles().contains(DragTypes::None)) {
            problems << QStringLiteral(
                "Handles field is missing and action responds to drag events");
        }
        if (creator.isEmpty()) {
            problems << QStringLiteral("Creator field is missing");
        }
        if (url.isEmpty()) {
            problems << QStringLiteral("URL field is missing");
        }
    }
    QString joined;
    for (const QString& problem : problems) {
        joined += QStringLiteral("-%1\n").arg(problem);
    }
    if (displayErrorsTo && !problems.isEmpty()) {
        displayErrorsTo->showCriticalAlertWithTitle(
            QStringLiteral("Invalid Action Meta Data"),
            QStringLiteral("The action script you are trying to add contains invalid or missing "
                           "meta data. The following problems were found:\n\n%1")
                .arg(joined));
    }
    if (validationErrors) {
        *validationErrors = joined;
    }
    return problems.isEmpty();
}

bool ActionFile::checkValidMetadataAndDisplayErrors(AlertHelper& alerts) const
{
    if (!metaValidationFailed) {
        return true;
    }
    alerts.showCriticalAlertWithTitle(
        QStringLiteral("Invalid Action Meta Data"),
        QStringLiteral("This action contains invalid or missing meta data. The following problems "
                       "were found:\n\n%1")
            .arg(metaValidationErrors));
    return false;
}

int ActionFile::compareVersion(const QString& minimumVersion, const QString& appVersion)
{
    const QStringList minimum = minimumVersion.split(u'.');
    const QStringList app = appVersion.split(u'.');
    // Walk the application's components only as far as the minimum has them, so an
    // application version with fewer components than the minimum counts as equal.
    for (qsizetype i = 0; i < app.size() && i < minimum.size(); ++i) {
        const qlonglong appPart = app.at(i).toLongLong();
        const qlonglong minimumPart = minimum.at(i).toLongLong();
        if (appPart != minimumPart) {
            return appPart < minimumPart ? -1 : 1;
        }
    }
    return 0;
}
