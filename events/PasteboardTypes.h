#pragma once

#include <QString>
#include <QStringList>

// The MIME formats a drop or the clipboard offers, and what they count as. Drops of files,
// text and images are told apart by these alone.
namespace PasteboardTypes {

inline const QString FileUrl = QStringLiteral("text/uri-list");
inline const QString PlainText = QStringLiteral("text/plain");
inline const QString QtImage = QStringLiteral("application/x-qt-image");
// A tile being moved inside the grid; never a drop of content.
inline const QString ActionTile = QStringLiteral("com.quarnet.SKActionPboardType");
// An item dragged out of a Drop Bar stack popover.
inline const QString StackItem = QStringLiteral("com.quarnet.skelvo.stack-item");
inline const QString MailMessage = QStringLiteral("com.apple.mail.PasteboardTypeMessageTransfer");

// Formats that only promise a file, which is fetched after the drop: X Direct Save and the
// desktop portal's file transfer of sandboxed applications.
QStringList filePromiseTypes();
// The promise formats, then the file URL format, then mail messages.
QStringList validFileDragTypes();
// The plain string format only.
QStringList validTextDragTypes();

bool isFileDragType(const QString& format);
// "text/plain", with or without a charset parameter.
bool isTextDragType(const QString& format);
// Image data ("image/..." or Qt's internal image format). Never read as text.
bool isImageType(const QString& format);

bool containsFileDragType(const QStringList& formats);
bool containsTextDragType(const QStringList& formats);
bool containsImageType(const QStringList& formats);

} // namespace PasteboardTypes
