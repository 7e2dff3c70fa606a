#pragma once

#include <QString>
#include <QStringList>

// Reads the XML property lists that other programs leave for Skelvo (the share lists).
namespace PropertyList {

// The strings of the top-level array of the XML property list at `path`; empty when the
// file is missing, unreadable or not such a list (`error` says which, when given).
QStringList readStringArray(const QString& path, QString* error = nullptr);

// Writes `strings` as an XML property list holding one array; false when it cannot be written.
bool writeStringArray(const QString& path, const QStringList& strings);

} // namespace PropertyList
