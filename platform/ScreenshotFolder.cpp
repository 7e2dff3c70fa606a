#include "platform/ScreenshotFolder.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QRegularExpression>
#include <QStringList>
#include <QUrl>

#include <algorithm>

namespace ScreenshotFolder {

namespace {

QString readText(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return {};
    }
    return QString::fromUtf8(file.read(1 << 20));
}

// "$HOME" and "${HOME}" at the start of a value.
QString expandHome(QString value, const QString& home)
{
    for (const QString& variable : {QStringLiteral("${HOME}"), QStringLiteral("$HOME")}) {
        if (value.startsWith(variable)) {
            return home + value.mid(variable.size());
        }
    }
    return value;
}

// The entries of a KConfig file as "Group/key"; the "[$e]" flag expands $HOME, other flags
// and localised variants of a key are dropped.
QHash<QString, QString> readKConfig(const QString& text, const QString& home)
{
    QHash<QString, QString> entries;
    QString group;
    for (QString line : text.split(u'\n')) {
        line = line.trimmed();
        if (line.isEmpty() || line.startsWith(u'#')) {
            continue;
        }
        if (line.startsWith(u'[')) {
            group = line.mid(1, line.indexOf(u']') - 1);
            continue;
        }
        const qsizetype equals = line.indexOf(u'=');
        if (equals <= 0) {
            continue;
        }
        QString key = line.left(equals).trimmed();
        QString value = line.mid(equals + 1).trimmed();
        if (const qsizetype bracket = key.indexOf(u'['); bracket >= 0) {
            if (key.mid(bracket) != QStringLiteral("[$e]")) {
                continue;
            }
            key.truncate(bracket);
            value.replace(QStringLiteral("${HOME}"), home).replace(QStringLiteral("$HOME"), home);
        }
        value.replace(QStringLiteral("\\s"), QStringLiteral(" "));
        value.replace(QStringLiteral("\\\\"), QStringLiteral("\\"));
        entries.insert(group + u'/' + key, value);
    }
    return entries;
}

QString locationToPath(const QString& location, const QString& home)
{
    if (location.startsWith(QStringLiteral("file:"))) {
        return QUrl(location).toLocalFile();
    }
    return expandTilde(location, home);
}

QString cleanFolder(const QString& path)
{
    return path.isEmpty() ? path : QDir::cleanPath(path);
}

bool startsWith(const QByteArray& bytes, qsizetype offset, const char* magic, qsizetype length)
{
    return bytes.size() >= offset + length &&
           std::equal(magic, magic + length, bytes.constData() + offset);
}

} // namespace

Environment currentEnvironment(const QProcessEnvironment& environment)
{
    Environment result;
    result.home = environment.value(QStringLiteral("HOME"), QDir::homePath());
    result.configHome = environment.value(QStringLiteral("XDG_CONFIG_HOME"));
    if (result.configHome.isEmpty()) {
        result.configHome = result.home + QStringLiteral("/.config");
    }
    result.currentDesktop = environment.value(QStringLiteral("XDG_CURRENT_DESKTOP"));
    result.kdeSessionVersion = environment.value(QStringLiteral("KDE_SESSION_VERSION")).toInt();
    result.userDirs = readText(result.configHome + QStringLiteral("/user-dirs.dirs"));
    result.spectaclerc = readText(result.configHome + QStringLiteral("/spectaclerc"));
    return result;
}

QString expandTilde(const QString& path, const QString& home)
{
    if (path == QStringLiteral("~")) {
        return home;
    }
    if (path.startsWith(QStringLiteral("~/"))) {
        return home + path.mid(1);
    }
    return path;
}

QString picturesFolder(const Environment& environment)
{
    static const QRegularExpression line(
        QStringLiteral(R"re(^\s*XDG_PICTURES_DIR\s*=\s*"([^"]*)")re"),
        QRegularExpression::MultilineOption);
    const QRegularExpressionMatch match = line.match(environment.userDirs);
    if (match.hasMatch()) {
        const QString value = expandHome(match.captured(1), environment.home);
        if (QDir::isAbsolutePath(value)) {
            return cleanFolder(value);
        }
    }
    return cleanFolder(environment.home + QStringLiteral("/Pictures"));
}

QString spectacleFolder(const Environment& environment)
{
    const QHash<QString, QString> entries = readKConfig(environment.spectaclerc, environment.home);
    for (const char* key : {"ImageSave/imageSaveLocation", "General/defaultSaveLocation",
                            "General/default-save-location"}) {
        const QString location = entries.value(QString::fromLatin1(key));
        if (!location.isEmpty()) {
            return cleanFolder(locationToPath(location, environment.home));
        }
    }
    // Spectacle of Plasma 6 saves into a folder of its own by default.
    if (environment.kdeSessionVersion >= 6) {
        return picturesFolder(environment) + QStringLiteral("/Screenshots");
    }
    return picturesFolder(environment);
}

QString desktopFolder(const Environment& environment)
{
    const QStringList desktops = environment.currentDesktop.toLower().split(u':');
    if (desktops.contains(QStringLiteral("kde"))) {
        return spectacleFolder(environment);
    }
    // Budgie sessions name GNOME too, but save with their own tool into the pictures folder.
    if (desktops.contains(QStringLiteral("gnome")) &&
        !desktops.contains(QStringLiteral("budgie"))) {
        return picturesFolder(environment) + QStringLiteral("/Screenshots");
    }
    return picturesFolder(environment);
}

QString folder()
{
    const Environment environment = currentEnvironment();
    const QString desktop = desktopFolder(environment);
    return QFileInfo(desktop).isDir() ? desktop : picturesFolder(environment);
}

ImageType imageTypeOfHeader(const QByteArray& bytes)
{
    if (startsWith(bytes, 0, "\x89PNG\r\n\x1a\n", 8)) {
        return ImageType::PNG;
    }
    if (startsWith(bytes, 0, "\xff\xd8\xff", 3)) {
        return ImageType::JPEG;
    }
    if (startsWith(bytes, 0, "RIFF", 4) && startsWith(bytes, 8, "WEBP", 4)) {
        return ImageType::WebP;
    }
    if (startsWith(bytes, 0, "GIF87a", 6) || startsWith(bytes, 0, "GIF89a", 6)) {
        return ImageType::GIF;
    }
    // "BM" alone is too weak: the size of the header that follows must be a known one.
    if (startsWith(bytes, 0, "BM", 2) && bytes.size() >= 18) {
        const quint32 size = quint8(bytes[14]) | quint8(bytes[15]) << 8 | quint8(bytes[16]) << 16 |
                             quint32(quint8(bytes[17])) << 24;
        if (size == 12 || size == 40 || size == 52 || size == 56 || size == 64 || size == 108 ||
            size == 124) {
            return ImageType::BMP;
        }
    }
    if (startsWith(bytes, 0, "II*\0", 4) || startsWith(bytes, 0, "MM\0*", 4)) {
        return ImageType::TIFF;
    }
    if (startsWith(bytes, 4, "ftyp", 4) &&
        (startsWith(bytes, 8, "avif", 4) || startsWith(bytes, 8, "avis", 4))) {
        return ImageType::AVIF;
    }
    if (startsWith(bytes, 0, "\xff\x0a", 2) ||
        startsWith(bytes, 0, "\0\0\0\x0cJXL \r\n\x87\n", 12)) {
        return ImageType::JXL;
    }
    return ImageType::None;
}

ImageType imageTypeOfFile(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return ImageType::None;
    }
    return imageTypeOfHeader(file.read(32));
}

bool hasScreenshotName(const QString& fileName)
{
    // Words (any language) before the time stamp; the tools add a counter on a name clash.
    static const QRegularExpression pattern(
        QStringLiteral(R"(^(?:)"
                       // GNOME Shell, GNOME Screenshot: "Screenshot from 2024-05-01 10-11-12"
                       R"([^/]*\S \d{4}-\d\d-\d\d \d\d-\d\d-\d\d(?:-\d+| - \d+)?)"
                       // Spectacle: "Screenshot_20240501_101112"
                       R"(|[^/\s]+_\d{8}_\d{6}(?:-\d+)?)"
                       // Xfce screenshooter: "Screenshot_2024-05-01_10-11-12"
                       R"(|[^/\s]+_\d{4}-\d\d-\d\d_\d\d-\d\d-\d\d(?:-\d+)?)"
                       // Flameshot: "2024-05-01_10-11", "2024-05-01_10-11_1"
                       R"(|\d{4}-\d\d-\d\d_\d\d-\d\d(?:_\d+)?)"
                       R"()\.(?:png|jpe?g|webp|gif|bmp|tiff?|avif|jxl)$)"),
        QRegularExpression::CaseInsensitiveOption);
    return pattern.match(fileName).hasMatch();
}

bool isScreenshot(const QString& path)
{
    const QFileInfo info(path);
    return info.isFile() && hasScreenshotName(info.fileName()) &&
           imageTypeOfFile(path) != ImageType::None;
}

} // namespace ScreenshotFolder
