#pragma once

#include <QMap>
#include <QString>
#include <QStringList>

#include <memory>

// Drag-type tokens: what an action's Handles line maps to.
namespace DragTypes {
inline const QString Files = QStringLiteral("SKFilesDragType");
inline const QString Text = QStringLiteral("SKTextDragType");
inline const QString None = QStringLiteral("SKNoDragType");
} // namespace DragTypes

// One action's parsed description: a script bundle, a single-file script, a built-in action
// or a sharing service. Two records are equal when their task paths are equal.
class AlertHelper;
class ActionFile {
public:
    // Header fields.
    QString actionName;
    QString actionDescription;
    QStringList events;
    bool eventsDefined = false;
    QStringList enabledKeyModifiers;
    bool keyModifiersDefined = false;
    QString creator;
    QString url;
    QString iconUrl;
    QString optionsNib;
    QString optionsTitle;
    QString defaultPort;
    QString uniqueID;
    QString version;
    QString minSkelvoVersion;
    QString rubyPath;
    QString pythonPath;
    QString authScope;
    bool useSelectedItemNameAndIcon = false;
    bool skipConfig = false;
    bool runsSandboxed = true;
    bool skipValidation = false;
    bool forceX86Ruby = false;

    // Where the action lives.
    QString taskPath;
    QString bundlePath;
    bool isBundle = false;
    bool isPythonAction = false;
    bool isUserScript = false;

    // Scan results.
    bool metaDataNotFound = true;
    bool metaValidationFailed = false;
    QString metaValidationErrors;

    // Built-in actions and sharing services.
    bool isBuiltInAction = false;
    QString builtInIcon; // path of the built-in's icon image
    bool isSharingService = false;
    QString sharingServiceName;
    QString sharingServiceIcon;

    // The handled drag types, in the order first seen; {"SKNoDragType"} when none.
    QStringList handles() const;
    void setHandles(const QStringList& dragTypes);

    // Applies one header field the way a header line does (unknown keys are ignored).
    void applyHeaderField(const QString& key, const QString& value);

    bool handlesClicked() const;
    bool handlesDragged() const;
    bool handlesTestConnection() const;
    bool handlesAuthorize() const;
    bool handlesFilesDragType() const;
    bool handlesTextDragType() const;
    bool optionKeyModifierEnabled() const;
    bool commandKeyModifierEnabled() const;
    bool shiftKeyModifierEnabled() const;
    bool controlKeyModifierEnabled() const;
    QString handlesString() const; // "Clicks", "Files & Text", "Files" or "Text"

    QString scriptPath() const;
    // The image to show for the action: a bundle's valid "icon.png", a built-in's or a
    // sharing service's icon, else the shipped "bundle" image.
    QString iconPath() const;

    bool optionsNibExists() const;
    bool optionsNibNeedsKeychain() const;
    QString keychainPasswordKey() const;
    QMap<QString, QString> constantVariables() const;

    // Checks the required fields; the problems are joined as "-<problem>\n" lines.
    // With `displayErrorsTo` a critical alert there lists them.
    bool validateMetaData(AlertHelper* displayErrorsTo, QString* validationErrors = nullptr) const;
    // Alerts with the problems found at scan time; returns whether the record is valid.
    bool checkValidMetadataAndDisplayErrors(AlertHelper& alerts) const;

    // -1 when appVersion is older than minimumVersion, 1 when newer, 0 when equal.
    // Only the indexes that both versions have are compared.
    static int compareVersion(const QString& minimumVersion, const QString& appVersion);

    bool operator==(const ActionFile& other) const { return taskPath == other.taskPath; }

private:
    QStringList m_handles;
};

using ActionFilePtr = std::shared_ptr<ActionFile>;
using ActionFileList = QList<ActionFilePtr>;
