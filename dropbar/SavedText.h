#pragma once

#include <QDateTime>
#include <QString>

// The files that text items of the Drop Bar are saved to, so that they can be dragged out
// and opened like any other file.
namespace SavedText {

// The file name (without ".txt") for `text`: its first 50 characters, trimmed, with what a
// file name cannot hold replaced; "Text Saved at MM-dd-yyyy hh-mm-ss AM" when nothing is left.
QString baseNameForText(const QString& text, const QDateTime& now);
// Writes `text` in UTF-8 to a new file in `folder` ("Hello.txt", then "Hello-1.txt", ...),
// atomically. The file's path, or empty when it could not be written (logged).
QString urlForCreatedTextFileForString(const QString& text, const QString& folder,
                                       const QDateTime& now = QDateTime::currentDateTime());

} // namespace SavedText
