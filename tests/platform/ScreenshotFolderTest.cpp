#include "platform/ScreenshotFolder.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace ScreenshotFolder;

namespace {

TEST(ScreenshotFolder, DesktopFolderFollowsTheDesktopAndItsConfiguration)
{
    const QString dirs = QStringLiteral("XDG_PICTURES_DIR=\"$HOME/Bilder\"\n");
    struct Row {
        const char* desktop;
        int kde;
        QString userDirs;
        const char* spectaclerc;
        const char* expected;
    } rows[] = {
        {"GNOME", 0, {}, "", "/h/Pictures/Screenshots"},
        {"ubuntu:GNOME", 0, dirs, "", "/h/Bilder/Screenshots"},
        {"Budgie:GNOME", 0, {}, "", "/h/Pictures"},
        {"X-Cinnamon", 0, {}, "", "/h/Pictures"},
        {"XFCE", 0, QStringLiteral("XDG_PICTURES_DIR=\"/data/pics/\"\n"), "", "/data/pics"},
        {"", 0, QStringLiteral("# XDG_PICTURES_DIR=\"/x\"\n"), "", "/h/Pictures"},
        {"KDE", 5, dirs, "", "/h/Bilder"},
        {"KDE", 6, {}, "", "/h/Pictures/Screenshots"},
        {"KDE", 6, {}, "[ImageSave]\nimageSaveLocation=file:///h/My%20Shots/\n", "/h/My Shots"},
        {"KDE", 5, {}, "[General]\ndefaultSaveLocation=file:///h/Shots\n", "/h/Shots"},
        {"KDE", 5, {}, "[General]\ndefault-save-location=~/Old\n", "/h/Old"},
        {"KDE", 5, {}, "[General]\ndefaultSaveLocation[$e]=file://$HOME/E\n", "/h/E"},
        {"KDE",
         6,
         {},
         "[General]\ndefaultSaveLocation=file:///h/Older\n[ImageSave]\n"
         "imageSaveLocation=file:///h/Newer\n",
         "/h/Newer"},
        {"KDE", 5, {}, "[GuiConfig]\ndefaultSaveLocation=file:///h/Wrong\n", "/h/Pictures"},
    };
    for (const Row& row : rows) {
        Environment environment;
        environment.home = QStringLiteral("/h");
        environment.currentDesktop = QString::fromLatin1(row.desktop);
        environment.kdeSessionVersion = row.kde;
        environment.userDirs = row.userDirs;
        environment.spectaclerc = QString::fromLatin1(row.spectaclerc);
        EXPECT_EQ(desktopFolder(environment), QString::fromLatin1(row.expected))
            << row.desktop << " " << row.spectaclerc;
    }
}

TEST(ScreenshotFolder, NamesOfTheScreenshotTools)
{
    const std::pair<const char*, bool> rows[] = {
        {"Screenshot from 2024-05-01 10-11-12.png", true},
        {"Screenshot From 2024-05-01 10-11-12.png", true},
        {"Screenshot from 2024-05-01 10-11-12-2.png", true},
        {"Screenshot from 2024-05-01 10-11-12 - 2.png", true},
        {"Bildschirmfoto vom 2024-05-01 10-11-12.png", true},
        {"Screenshot_2024-05-01_10-11-12.png", true},
        {"Screenshot_20240501_101112.png", true},
        {"Screenshot_20240501_101112-1.jpg", true},
        {"2024-05-01_10-11.png", true},
        {"2024-05-01_10-11_1.PNG", true},
        {"Screenshot from 2024-05-01 10-11-12.webm", false},
        {"Screenshot from 2024-05-01 10-11-12.png.part", false},
        {".Screenshot_20240501_101112.png.tmp", false},
        {"holiday.png", false},
        {"2024-05-01 10-11-12.png", false},
        {"Screenshot_2024-05-01.png", false},
        {"2024-05-01_10-11-12-13.png", false},
    };
    for (const auto& [name, expected] : rows) {
        EXPECT_EQ(hasScreenshotName(QString::fromLatin1(name)), expected) << name;
    }
}

TEST(ScreenshotFolder, ImageTypeFromTheFirstBytes)
{
    const std::pair<QByteArray, ImageType> rows[] = {
        {QByteArray("\x89PNG\r\n\x1a\n\0\0", 10), ImageType::PNG},
        {QByteArray("\xff\xd8\xff\xe0"), ImageType::JPEG},
        {QByteArray("RIFF\x10\0\0\0WEBPVP8 ", 16), ImageType::WebP},
        {QByteArray("GIF89a"), ImageType::GIF},
        {QByteArray("BM\0\0\0\0\0\0\0\0\0\0\0\0\x28\0\0\0", 18), ImageType::BMP},
        {QByteArray("BM this is text"), ImageType::None},
        {QByteArray("II*\0", 4), ImageType::TIFF},
        {QByteArray("\0\0\0\x1c"
                    "ftypavif",
                    12),
         ImageType::AVIF},
        {QByteArray("\0\0\0\x1c"
                    "ftypmp42",
                    12),
         ImageType::None},
        {QByteArray("\xff\x0a"), ImageType::JXL},
        {QByteArray("RIFF\x10\0\0\0WAVE", 12), ImageType::None},
        {QByteArray("\x89PN"), ImageType::None},
        {QByteArray(), ImageType::None},
    };
    for (const auto& [bytes, expected] : rows) {
        EXPECT_EQ(imageTypeOfHeader(bytes), expected) << bytes.toHex().constData();
    }
}

TEST(ScreenshotFolder, ReadsTheSessionsFiles)
{
    QTemporaryDir home;
    ASSERT_TRUE(home.isValid());
    QDir(home.path()).mkpath(QStringLiteral("conf"));
    QFile dirs(home.filePath(QStringLiteral("conf/user-dirs.dirs")));
    ASSERT_TRUE(dirs.open(QIODevice::WriteOnly));
    dirs.write("XDG_PICTURES_DIR=\"$HOME/Fotos\"\n");
    dirs.close();
    QProcessEnvironment variables;
    variables.insert(QStringLiteral("HOME"), home.path());
    variables.insert(QStringLiteral("XDG_CONFIG_HOME"), home.filePath(QStringLiteral("conf")));
    variables.insert(QStringLiteral("XDG_CURRENT_DESKTOP"), QStringLiteral("GNOME"));
    EXPECT_EQ(desktopFolder(currentEnvironment(variables)),
              home.filePath(QStringLiteral("Fotos/Screenshots")));
}

} // namespace
