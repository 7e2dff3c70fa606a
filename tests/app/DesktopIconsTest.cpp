#include "app/DesktopIcons.h"

#include "tests/support/TestHome.h"

#include <QDir>
#include <QGuiApplication>
#include <QIcon>
#include <QImage>

#include <gtest/gtest.h>

namespace {

// A hicolor theme of one-coloured icons in the test's home, in place of the system's themes.
class DesktopIconsTest : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        static int argc = 1;
        static char name[] = "desktop_tests";
        static char* argv[] = {name, nullptr};
        if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
            qputenv("QT_QPA_PLATFORM", "offscreen");
        }
        static QGuiApplication app(argc, argv);
    }

    void SetUp() override
    {
        m_home.writeFile("icons/hicolor/index.theme",
                         "[Icon Theme]\nName=Hicolor\nDirectories=48x48/apps,48x48/mimetypes\n"
                         "[48x48/apps]\nSize=48\nContext=Applications\n"
                         "[48x48/mimetypes]\nSize=48\nContext=MimeTypes\n");
        writeIcon("icons/hicolor/48x48/apps/org.example.Editor.png", Qt::red);
        writeIcon("icons/hicolor/48x48/mimetypes/text-plain.png", Qt::green);
        writeIcon("pictures/own.png", Qt::blue);
        QIcon::setThemeSearchPaths({QDir(m_home.path()).filePath("icons")});
        QIcon::setThemeName("hicolor");
    }

    void writeIcon(const QString& relative, Qt::GlobalColor color)
    {
        QImage image(48, 48, QImage::Format_ARGB32);
        image.fill(color);
        const QString path = m_home.writeFile(relative, {});
        ASSERT_TRUE(image.save(path, "PNG"));
    }

    TestHome m_home;
};

TEST_F(DesktopIconsTest, EntryIconsThenTheFileTypesIcon)
{
    const QString ownIcon = QDir(m_home.path()).filePath("pictures/own.png");
    const std::tuple<const char*, QByteArray, QColor> rows[] = {
        {"a.desktop", "[Desktop Entry]\nType=Application\nIcon=org.example.Editor\n", Qt::red},
        {"b.desktop", "[Desktop Entry]\nType=Application\nIcon=" + ownIcon.toUtf8() + "\n",
         Qt::blue},
        {"notes.txt", "text", Qt::green},
        {"data.bin", QByteArray("\0\1\2", 3), QColor()},
    };
    for (const auto& [name, contents, color] : rows) {
        const QByteArray png =
            DesktopIcons::workspaceIcon(m_home.writeFile(QString::fromLatin1(name), contents));
        const QImage image = QImage::fromData(png, "PNG");
        EXPECT_EQ(image.isNull() ? QColor() : image.pixelColor(image.rect().center()), color)
            << name;
    }
}

} // namespace
