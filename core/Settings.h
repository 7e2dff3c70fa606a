#pragma once

#include <QJsonObject>
#include <QJsonValue>
#include <QObject>
#include <QString>

// The user's settings, kept as one JSON file ("settings.json") in the config folder under
// the key names the rest of the system uses. Registered defaults answer for keys the user
// never set and are never written to the file.
class Settings : public QObject {
    Q_OBJECT
public:
    // Key names, shared with every part that reads them.
    static inline const QString PlaySounds = QStringLiteral("PlaySounds");
    static inline const QString KeepTaskDescriptionFiles =
        QStringLiteral("KeepTaskDescriptionFiles");
    static inline const QString DisableSSLVerify = QStringLiteral("DisableSSLVerify");
    static inline const QString SelectedGridId = QStringLiteral("SelectedGridId");
    static inline const QString AutoClosePopOutDropBar = QStringLiteral("AutoClosePopOutDropBar");
    static inline const QString ScreenTopDragEnabled = QStringLiteral("ScreenTopDragEnabled");
    static inline const QString MonitoredFolders = QStringLiteral("MonitoredFolders");
    static inline const QString NotificationsEnabled = QStringLiteral("NotificationsEnabled");
    static inline const QString DevelopPreferredLanguage =
        QStringLiteral("DevelopPreferredLanguage");
    static inline const QString IncludeDevelopComments = QStringLiteral("IncludeDevelopComments");
    static inline const QString AssignedServiceKeys = QStringLiteral("AssignedServiceKeys");
    static inline const QString GridPositionLoggingEnabled =
        QStringLiteral("GridPositionLoggingEnabled");
    static inline const QString AutoAddScreenshotsToDropBar =
        QStringLiteral("AutoAddScreenshotsToDropBar");
    static inline const QString ScreenshotsTargetGridId = QStringLiteral("ScreenshotsTargetGridId");
    static inline const QString ScreenshotsActionId = QStringLiteral("ScreenshotsActionId");
    static inline const QString ScreenshotsKeepInDropBar =
        QStringLiteral("ScreenshotsKeepInDropBar");
    static inline const QString ScreenshotsConfirmBeforeAction =
        QStringLiteral("ScreenshotsConfirmBeforeAction");
    // The folder screenshots are saved to, when not the desktop's own.
    static inline const QString ScreenshotsFolder = QStringLiteral("ScreenshotsFolder");
    static inline const QString ActionServerURL = QStringLiteral("ActionServerURL");

    // "settings.json" in SupportPaths::configDirectory().
    static QString defaultFilePath();

    explicit Settings(QString filePath, QObject* parent = nullptr);

    QString filePath() const { return m_filePath; }

    void registerDefaults(const QJsonObject& defaults);
    bool contains(const QString& key) const; // set by the user, not a default
    QJsonValue value(const QString& key) const;
    QString stringValue(const QString& key) const;
    qint64 integerValue(const QString& key) const;
    // Lenient: only the text "no" (any case), false and 0 are false; a missing key is false.
    bool boolValue(const QString& key) const;

    // Each change is written to the file at once (atomically).
    void setValue(const QString& key, const QJsonValue& value);
    void remove(const QString& key);

    // Re-reads the file, for changes made by another process.
    void reload();

    static bool lenientBool(const QJsonValue& value);

Q_SIGNALS:
    void changed(const QString& key);

private:
    bool save() const;

    QString m_filePath;
    QJsonObject m_values;
    QJsonObject m_defaults;
};
