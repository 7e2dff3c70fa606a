#pragma once

#include <QByteArray>
#include <QProcessEnvironment>
#include <QString>

// Where the desktop's screenshot tool saves, and how a screenshot is told from other files
// there. Everything but currentEnvironment(), folder() and isScreenshot() is pure.
//
// GNOME Shell sessions ("GNOME" in XDG_CURRENT_DESKTOP, Budgie excepted) save into
// "Screenshots" in the pictures folder. KDE Plasma's Spectacle saves where its configuration
// says, by default in the pictures folder (Plasma 5) or its "Screenshots" (Plasma 6). Every
// other desktop (Budgie, Cinnamon, Unity, MATE and Xfce, whose tools default to the pictures
// folder itself, or ask) gets the pictures folder.
namespace ScreenshotFolder {

struct Environment {
    QString home;
    QString configHome;     // XDG_CONFIG_HOME, or ~/.config
    QString currentDesktop; // XDG_CURRENT_DESKTOP
    int kdeSessionVersion = 0;
    QString userDirs;    // the text of user-dirs.dirs
    QString spectaclerc; // the text of Spectacle's configuration
};

// Reads the variables and the two configuration files from `environment`'s home.
Environment currentEnvironment(
    const QProcessEnvironment& environment = QProcessEnvironment::systemEnvironment());

// A leading "~" or "~/" replaced by `home`.
QString expandTilde(const QString& path, const QString& home);
// XDG_PICTURES_DIR of user-dirs.dirs, else ~/Pictures.
QString picturesFolder(const Environment& environment);
// Spectacle's save location: its current key, then those of older versions, then its own
// default; file:// URLs become paths.
QString spectacleFolder(const Environment& environment);
// The folder the desktop's own screenshot tool saves into.
QString desktopFolder(const Environment& environment);
// desktopFolder() of this session, or the pictures folder when that is not a folder (yet).
QString folder();

enum class ImageType { None, PNG, JPEG, WebP, GIF, BMP, TIFF, AVIF, JXL };
// The image type that a file's first bytes (16 are enough) announce.
ImageType imageTypeOfHeader(const QByteArray& firstBytes);
ImageType imageTypeOfFile(const QString& path);

// Whether a file name follows the default naming of GNOME Shell, GNOME Screenshot,
// Spectacle, Flameshot or the Xfce screenshooter (their words may be translated; the time
// stamp's layout tells them apart) with an image file extension.
bool hasScreenshotName(const QString& fileName);
// A screenshot's name and the content of an image.
bool isScreenshot(const QString& path);

} // namespace ScreenshotFolder
