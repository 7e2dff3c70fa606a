#pragma once

#include <QString>
#include <QStringList>

#include <ostream>

// Readable failure messages for Qt strings: as values gtest prints, and in messages a test
// streams after an assertion.
inline void PrintTo(const QString& text, std::ostream* out)
{
    *out << '"' << text.toStdString() << '"';
}
inline void PrintTo(const QStringList& list, std::ostream* out)
{
    *out << '[' << list.join(QStringLiteral("\", \"")).toStdString() << ']';
}
inline std::ostream& operator<<(std::ostream& out, const QString& text)
{
    return out << text.toStdString();
}
