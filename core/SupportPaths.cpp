#include "core/SupportPaths.h"

#include "core/Log.h"
#include "core/PrivateFolder.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <QUrl>
#include <QUuid>

namespace {

QString env(const char* name)
{
    return qEnvironmentVariable(name);
}

QString homeOverride()
{
    return env("SKELVO_HOME");
}

QString xdgRoot(const char* variable, const QString& homeRelativeDefault, const char* homeSub)
{
    const QString home = homeOverride();
    if (!home.isEmpty()) {
        return QDir(home).filePath(QString::fromLatin1(homeSub));
    }
    const QString value = env(variable);
    // The XDG specification says relative values are invalid and must be ignored.
    if (!value.isEmpty() && QDir::isAbsolutePath(value)) {
        return value;
    }
    return QDir::home().filePath(homeRelativeDefault);
}

bool makePath(const QString& path, QString* error)
{
    if (QFileInfo(path).isDir()) {
        return true;
    }
    if (QDir().mkpath(path)) {
        return true;
    }
    if (error) {
        *error = QFileInfo(path).exists() ? QStringLiteral("A file is in the way")
                                          : QStringLiteral("Could not create the folder");
    }
    return false;
}

QString ensureFolder(const QString& path, const QString& failureFormat)
{
    QString error;
    if (!makePath(path, &error)) {
        Log::error(failureFormat.contains(QStringLiteral("%2")) ? failureFormat.arg(path, error)
                                                                : failureFormat.arg(path));
    }
    return path;
}

QString uniqueSubfolder(const QString& parent, const QString& prefix, const QString& failure)
{
    const QString path = QDir(parent).filePath(
        prefix + QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper());
    QString error;
    if (!makePath(path, &error)) {
        Log::error(failure.arg(path));
    }
    return path;
}

} // namespace

namespace SupportPaths {

QString applicationSupportDirectory()
{
    const QString path = QDir(xdgRoot("XDG_DATA_HOME", QStringLiteral(".local/share"), "data"))
                             .filePath(QStringLiteral("Skelvo"));
    QString error;
    if (!makePath(path, &error)) {
        Log::error(QStringLiteral("Unable to find or create application support directory:\n%1")
                       .arg(path));
    }
    return path;
}

QString configDirectory()
{
    const QString path = QDir(xdgRoot("XDG_CONFIG_HOME", QStringLiteral(".config"), "config"))
                             .filePath(QStringLiteral("Skelvo"));
    return ensureFolder(path, QStringLiteral("Error creating config directory at %1\n%2"));
}

QString runtimeDirectory()
{
    QString root;
    if (!homeOverride().isEmpty()) {
        root = QDir(homeOverride()).filePath(QStringLiteral("runtime"));
    } else if (!env("XDG_RUNTIME_DIR").isEmpty()) {
        root = env("XDG_RUNTIME_DIR");
    } else {
        // No session runtime folder (cron, ssh without logind): a per-user folder in /tmp,
        // used only when it is really ours.
        root = QString::fromStdString(
            PrivateFolder::fallbackRuntimeRoot(QFile::encodeName(QDir::tempPath()).toStdString()));
        std::string problem;
        if (!PrivateFolder::ensure(QFile::encodeName(root).toStdString(), &problem)) {
            Log::error(QStringLiteral("Refusing the runtime folder %1")
                           .arg(QString::fromStdString(problem)));
            return {};
        }
    }
    const QString path = QDir(root).filePath(QStringLiteral("skelvo"));
    ensureFolder(path, QStringLiteral("Error creating runtime directory at %1\n%2"));
    QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    return path;
}

QString logsDirectory()
{
    return ensureFolder(QDir(applicationSupportDirectory()).filePath(QStringLiteral("Logs")),
                        QStringLiteral("Error creating logs directory at %1\n%2"));
}

QString executableDirectory()
{
    static const QString folder =
        QFileInfo(QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath()).absolutePath();
    return folder;
}

void locateResources()
{
    executableDirectory();
}

QString resourcesDirectory()
{
    const QString overridden = env("SKELVO_RESOURCES");
    if (!overridden.isEmpty()) {
        return overridden;
    }
    // Installed and build trees share the layout bin/<exe> beside share/skelvo.
    return QDir(executableDirectory()).absoluteFilePath(QStringLiteral("../share/skelvo"));
}

QString internalActionsDirectory()
{
    return QDir::cleanPath(QDir(resourcesDirectory()).filePath(QStringLiteral("Actions")));
}

QString internalLibDirectory()
{
    return QDir(internalActionsDirectory()).filePath(QStringLiteral("lib"));
}

QString userActionsDirectory()
{
    return ensureFolder(QDir(applicationSupportDirectory()).filePath(QStringLiteral("Actions")),
                        QStringLiteral("Error creating userActionsDirectory directory at: %1\n%2"));
}

QString tasksDirectory()
{
    const QString path = QDir(applicationSupportDirectory()).filePath(QStringLiteral("Tasks"));
    QString error;
    if (!makePath(path, &error)) {
        Log::error(QStringLiteral("Error creating folder at %1\n%2").arg(path, error));
        return {};
    }
    return path;
}

QString promisedFilesDirectory()
{
    return ensureFolder(
        QDir(applicationSupportDirectory()).filePath(QStringLiteral("Promised Files")),
        QStringLiteral("Unable to find or create unique promised files directory:\n%1"));
}

QString uniquePromisedFilesDirectory()
{
    return uniqueSubfolder(
        promisedFilesDirectory(), QStringLiteral("SkFilePromise-"),
        QStringLiteral("Unable to find or create unique promised files directory:\n%1"));
}

QString actionOutputsDirectory()
{
    return ensureFolder(
        QDir(applicationSupportDirectory()).filePath(QStringLiteral("Action Outputs")),
        QStringLiteral("Unable to find or create unique action output files directory:\n%1"));
}

QString uniqueActionOutputDirectory()
{
    return uniqueSubfolder(
        actionOutputsDirectory(), QStringLiteral("SkActionOutput-"),
        QStringLiteral("Unable to find or create unique action output files directory:\n%1"));
}

QString savedTextDirectory()
{
    return ensureFolder(
        QDir(applicationSupportDirectory()).filePath(QStringLiteral("Saved Text")),
        QStringLiteral("Unable to find or create Drop Bar saved text files directory:\n%1"));
}

QString uniqueTemporaryDirectory()
{
    const QString path = QDir::temp().filePath(QStringLiteral("skelvo-") +
                                               QUuid::createUuid().toString(QUuid::WithoutBraces));
    if (!QDir().mkpath(path)) {
        Log::error(QStringLiteral("Error creating unique temporary directory with URL %1\n%2")
                       .arg(QUrl::fromLocalFile(path).toString(),
                            QStringLiteral("Could not create the folder")));
    }
    return path;
}

} // namespace SupportPaths
