#include "core/Settings.h"

#include "core/Log.h"
#include "core/SupportPaths.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QSaveFile>

QString Settings::defaultFilePath()
{
    return QDir(SupportPaths::configDirectory()).filePath(QStringLiteral("settings.json"));
}

Settings::Settings(QString filePath, QObject* parent)
    : QObject(parent)
    , m_filePath(std::move(filePath))
{
    reload();
}

void Settings::registerDefaults(const QJsonObject& defaults)
{
    for (auto it = defaults.begin(); it != defaults.end(); ++it) {
        m_defaults.insert(it.key(), it.value());
    }
}

bool Settings::contains(const QString& key) const
{
    return m_values.contains(key);
}

QJsonValue Settings::value(const QString& key) const
{
    if (m_values.contains(key)) {
        return m_values.value(key);
    }
    return m_defaults.value(key);
}

QString Settings::stringValue(const QString& key) const
{
    const QJsonValue v = value(key);
    if (v.isDouble()) {
        return QString::number(v.toInteger());
    }
    return v.toString();
}

qint64 Settings::integerValue(const QString& key) const
{
    const QJsonValue v = value(key);
    if (v.isString()) {
        return v.toString().trimmed().toLongLong();
    }
    if (v.isBool()) {
        return v.toBool() ? 1 : 0;
    }
    return v.toInteger();
}

bool Settings::lenientBool(const QJsonValue& value)
{
    switch (value.type()) {
    case QJsonValue::Bool:
        return value.toBool();
    case QJsonValue::Double:
        return value.toDouble() != 0.0;
    case QJsonValue::String:
        return value.toString().toLower() != QStringLiteral("no");
    case QJsonValue::Null:
    case QJsonValue::Undefined:
        return false;
    default:
        return true;
    }
}

bool Settings::boolValue(const QString& key) const
{
    return lenientBool(value(key));
}

void Settings::setValue(const QString& key, const QJsonValue& value)
{
    if (m_values.value(key) == value && m_values.contains(key)) {
        return;
    }
    m_values.insert(key, value);
    save();
    Q_EMIT changed(key);
}

void Settings::remove(const QString& key)
{
    if (!m_values.contains(key)) {
        return;
    }
    m_values.remove(key);
    save();
    Q_EMIT changed(key);
}

void Settings::reload()
{
    QFile file(m_filePath);
    if (!file.exists()) {
        m_values = {};
        return;
    }
    if (!file.open(QIODevice::ReadOnly)) {
        Log::error(QStringLiteral("Error reading settings file %1\n%2")
                       .arg(m_filePath, file.errorString()));
        return;
    }
    QJsonParseError error{};
    const QJsonDocument doc = QJsonDocument::fromJson(file.readAll(), &error);
    if (!doc.isObject()) {
        // Keep the damaged file for the user; the settings start from the defaults.
        Log::error(QStringLiteral("Settings file %1 is not valid JSON (%2); using defaults")
                       .arg(m_filePath, error.errorString()));
        QFile::copy(m_filePath, m_filePath + QStringLiteral(".damaged"));
        m_values = {};
        return;
    }
    m_values = doc.object();
}

bool Settings::save() const
{
    QDir().mkpath(QFileInfo(m_filePath).absolutePath());
    QSaveFile file(m_filePath);
    if (!file.open(QIODevice::WriteOnly)) {
        Log::error(QStringLiteral("Error writing settings file %1\n%2")
                       .arg(m_filePath, file.errorString()));
        return false;
    }
    file.write(QJsonDocument(m_values).toJson(QJsonDocument::Indented));
    if (!file.commit()) {
        Log::error(QStringLiteral("Error writing settings file %1\n%2")
                       .arg(m_filePath, file.errorString()));
        return false;
    }
    return true;
}
