#include "platform/PropertyList.h"

#include <QFile>
#include <QSaveFile>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

namespace PropertyList {

QStringList readStringArray(const QString& path, QString* error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        if (error) {
            *error = file.errorString();
        }
        return {};
    }
    QXmlStreamReader xml(&file);
    QStringList strings;
    int depth = 0; // of arrays: only the strings of the top-level one count
    bool sawArray = false;
    while (!xml.atEnd()) {
        xml.readNext();
        if (xml.isStartElement()) {
            if (xml.name() == u"array") {
                sawArray = true;
                ++depth;
            } else if (xml.name() == u"string" && depth == 1) {
                strings << xml.readElementText();
            }
        } else if (xml.isEndElement() && xml.name() == u"array") {
            --depth;
        }
    }
    if (xml.hasError() || !sawArray) {
        if (error) {
            *error = xml.hasError() ? xml.errorString()
                                    : QStringLiteral("The property list holds no array.");
        }
        return {};
    }
    return strings;
}

bool writeStringArray(const QString& path, const QStringList& strings)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        return false;
    }
    QXmlStreamWriter xml(&file);
    xml.setAutoFormatting(true);
    xml.writeStartDocument();
    xml.writeStartElement(QStringLiteral("plist"));
    xml.writeAttribute(QStringLiteral("version"), QStringLiteral("1.0"));
    xml.writeStartElement(QStringLiteral("array"));
    for (const QString& string : strings) {
        xml.writeTextElement(QStringLiteral("string"), string);
    }
    xml.writeEndElement();
    xml.writeEndElement();
    xml.writeEndDocument();
    return file.commit();
}

} // namespace PropertyList
