#pragma once

#include "dropbar/Dropbar.h"

#include <QList>
#include <QString>
#include <QStringList>

// Which files on a Drop Bar are Skelvo's own, and removing them when nothing refers to them
// any more. Files a user dropped are never touched: only folders of received file promises,
// folders of action outputs and saved text files are.
namespace DropbarCleanup {

// The folder of Skelvo's own that `path` lies in and that goes with its item (a received
// promise's or an action output's folder); empty for any other path.
QString temporaryContainerOf(const QString& path);
// The paths the stored items (all grids) refer to.
QStringList referencedPaths(const SqlRows& itemRows);

// Deletes the temporary files of `removed` that no path of `stillReferenced` lies in.
void removeTempFiles(const QList<DropbarItem>& removed, const QStringList& stillReferenced);
// Start-up: promise folders and saved text files that no item refers to.
void removePromisedFilesDirs(const QStringList& referenced);
void removeSavedTextFiles(const QStringList& referenced);

} // namespace DropbarCleanup
