#include "dropbar/SavedText.h"

#include "core/Log.h"

#include <QDir>
#include <QFileInfo>
#include <QLocale>
#include <QSaveFile>

namespace SavedText {

QString baseNameForText(const QString& text, const QDateTime& now)
{
    QString base = text.left(50);
    // Half a surrogate pair would not survive as a file name.
    if (base.size() == 50 && base.back().isHighSurrogate()) {
        base.chop(1);
    }
    base = base.trimmed();
    for (QChar& character : base) {
        // A line break inside the name reads best as a space; "/" cannot be in a name at all.
        if (character.category() == QChar::Other_Control || character.isSpace()) {
            character = u' ';
        } else if (character == u'/' || character == u'\\' || character == u':') {
            character = u'-';
        }
    }
    // A leading dot would hide the file.
    while (base.startsWith(u'.')) {
        base.remove(0, 1);
    }
    base = base.trimmed();
    if (base.isEmpty()) {
        base = QStringLiteral("Text Saved at ") +
               QLocale::c().toString(now, QStringLiteral("MM-dd-yyyy hh-mm-ss AP"));
    }
    return base;
}

QString urlForCreatedTextFileForString(const QString& text, const QString& folder,
                                       const QDateTime& now)
{
    const QString base = baseNameForText(text, now);
    const QDir dir(folder);
    QString path = dir.filePath(base + QStringLiteral(".txt"));
    for (qint64 counter = 1; QFileInfo::exists(path) || QFileInfo(path).isSymLink(); ++counter) {
        path = dir.filePath(QStringLiteral("%1-%2.txt").arg(base).arg(counter));
    }
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(text.toUtf8()) < 0 || !file.commit()) {
        Log::error(
            QStringLiteral("Error writing text item to file %1\n%2").arg(path, file.errorString()));
        return {};
    }
    return path;
}

} // namespace SavedText
