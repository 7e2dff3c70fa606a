#include "dropbar/DropbarCleanup.h"

#include "core/FileOperations.h"
#include "core/Log.h"
#include "core/SupportPaths.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>

namespace DropbarCleanup {

namespace {

// The child of `root` that holds `path`; empty when `path` is not inside `root`.
QString childOf(const QString& root, const QString& path)
{
    const QString prefix = QDir::cleanPath(root) + u'/';
    const QString clean = QDir::cleanPath(path);
    if (root.isEmpty() || !clean.startsWith(prefix)) {
        return {};
    }
    const QString rest = clean.mid(prefix.size());
    return prefix + rest.section(u'/', 0, 0);
}

bool isReferenced(const QString& container, const QStringList& referenced)
{
    return std::any_of(referenced.cbegin(), referenced.cend(), [&](const QString& path) {
        return path == container || path.startsWith(container + u'/');
    });
}

void removeFolder(const QString& folder, const char* format)
{
    QString error;
    if (QFileInfo::exists(folder) && !FileOperations::removeRecursively(folder, &error)) {
        Log::error(QString::fromLatin1(format).arg(folder, error));
    }
}

void removeSavedText(const QString& path)
{
    QFile file(path);
    if (file.exists() && !file.remove()) {
        Log::error(QStringLiteral("Error deleting saved text file at path %1\n%2")
                       .arg(path, file.errorString()));
    }
}

} // namespace

QString temporaryContainerOf(const QString& path)
{
    for (const QString& root :
         {SupportPaths::promisedFilesDirectory(), SupportPaths::actionOutputsDirectory()}) {
        const QString container = childOf(root, path);
        if (!container.isEmpty()) {
            return container;
        }
    }
    return {};
}

QStringList referencedPaths(const SqlRows& itemRows)
{
    QStringList paths;
    for (const SqlRow& row : itemRows) {
        const DropbarItem item = DropbarItem::fromRow(row);
        if (!item.path.isEmpty()) {
            paths << QDir::cleanPath(item.path);
        }
    }
    return paths;
}

void removeTempFiles(const QList<DropbarItem>& removed, const QStringList& stillReferenced)
{
    const QString savedText = QDir::cleanPath(SupportPaths::savedTextDirectory());
    QSet<QString> done;
    for (const DropbarItem& item : removed) {
        if (item.path.isEmpty()) {
            continue;
        }
        if (item.isText()) {
            if (!childOf(savedText, item.path).isEmpty() &&
                !stillReferenced.contains(QDir::cleanPath(item.path))) {
                removeSavedText(item.path);
            }
            continue;
        }
        const QString container = temporaryContainerOf(item.path);
        if (container.isEmpty() || done.contains(container) ||
            isReferenced(container, stillReferenced)) {
            continue;
        }
        done.insert(container);
        if (container.startsWith(QDir::cleanPath(SupportPaths::promisedFilesDirectory()))) {
            removeFolder(container, "Error deleting temp file promise directory at path %1\n%2");
        } else {
            removeFolder(container, "Error deleting action output directory at path %1\n%2");
        }
    }
}

void removePromisedFilesDirs(const QStringList& referenced)
{
    const QDir root(SupportPaths::promisedFilesDirectory());
    for (const QString& name : root.entryList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::Hidden)) {
        const QString container = QDir::cleanPath(root.filePath(name));
        if (!isReferenced(container, referenced)) {
            removeFolder(container, "Error deleting temp file promise directory at path %1\n%2");
        }
    }
}

void removeSavedTextFiles(const QStringList& referenced)
{
    const QDir root(SupportPaths::savedTextDirectory());
    for (const QString& name : root.entryList(QDir::Files | QDir::Hidden | QDir::System)) {
        const QString path = QDir::cleanPath(root.filePath(name));
        if (!referenced.contains(path)) {
            removeSavedText(path);
        }
    }
}

} // namespace DropbarCleanup
