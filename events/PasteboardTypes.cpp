#include "events/PasteboardTypes.h"

#include <algorithm>

namespace PasteboardTypes {

QStringList filePromiseTypes()
{
    return {QStringLiteral("XdndDirectSave0"),
            QStringLiteral("application/vnd.portal.filetransfer"),
            QStringLiteral("application/vnd.portal.files")};
}

QStringList validFileDragTypes()
{
    return filePromiseTypes() << FileUrl << MailMessage;
}

QStringList validTextDragTypes()
{
    return {PlainText};
}

bool isFileDragType(const QString& format)
{
    return validFileDragTypes().contains(format);
}

bool isTextDragType(const QString& format)
{
    // Toolkits offer the same string with its charset named as well.
    return format == PlainText || format.startsWith(PlainText + QLatin1Char(';'));
}

bool isImageType(const QString& format)
{
    return format.startsWith(QLatin1String("image/")) || format == QtImage;
}

bool containsFileDragType(const QStringList& formats)
{
    return std::any_of(formats.cbegin(), formats.cend(), isFileDragType);
}

bool containsTextDragType(const QStringList& formats)
{
    return std::any_of(formats.cbegin(), formats.cend(), isTextDragType);
}

bool containsImageType(const QStringList& formats)
{
    return std::any_of(formats.cbegin(), formats.cend(), isImageType);
}

} // namespace PasteboardTypes
