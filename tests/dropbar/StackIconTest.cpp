#include "dropbar/StackIcon.h"

#include "builtin/images/ImageProcessor.h"
#include "tests/support/TestHome.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

#undef signals
#include <vips/vips8>

namespace {

using Rgb = std::vector<double>;
const Rgb Red{255, 0, 0}, Blue{0, 0, 255}, Paper{252, 252, 253}, FolderFront{96, 164, 232};

// A square icon with alpha, whose front item shows `front` at a point any pile's front covers.
void expectIcon(const QByteArray& data, int size, const Rgb& front)
{
    const auto image = vips::VImage::new_from_buffer(data.constData(), data.size(), "");
    ASSERT_EQ(image.width(), size);
    ASSERT_EQ(image.height(), size);
    ASSERT_EQ(image.bands(), 4);
    for (std::size_t band = 0; band < front.size(); ++band)
        EXPECT_NEAR(image.getpoint(size / 3, size * 2 / 3).at(band), front[band], 40) << band;
}

TEST(StackIconTest, PilesUpTheFirstItems)
{
    ASSERT_TRUE(ImageProcessing::ensureInitialised());
    TestHome home;
    const QDir dir(home.path());
    const auto save = [&](const char* name, int width, int height, const Rgb& colour) {
        (vips::VImage::black(width, height) + colour)
            .cast(VIPS_FORMAT_UCHAR)
            .write_to_file(QFile::encodeName(dir.filePath(name)).constData());
    };
    save("red.png", 64, 48, Red);
    save("blue.png", 32, 32, Blue);
    // Decoded at full size this takes over 300 MB; shrink-on-load reads an eighth of it.
    save("huge.jpg", 12000, 9000, Red);
    home.writeFile("notes.txt", "text");
    ASSERT_TRUE(dir.mkdir("folder"));
    QFile blueFile(dir.filePath("blue.png"));
    ASSERT_TRUE(blueFile.open(QIODevice::ReadOnly));
    const QByteArray blue = blueFile.readAll();
    const StackIcon::FileIconProvider blueIcons = [&](const QString&) { return blue; };

    const struct {
        const char* items;
        int size;
        bool provider;
        Rgb front;
    } rows[] = {
        {"red.png", 128, false, Red},
        {"huge.jpg", 128, false, Red},
        {"red.png notes.txt folder huge.jpg", 96, true, Red},
        {"notes.txt red.png", 64, true, Blue},
        {"folder", 64, false, FolderFront},
        {"gone folder", 64, true, Paper},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.items);
        QStringList paths;
        for (const QString& item : QString(row.items).split(u' '))
            paths << dir.filePath(item);
        expectIcon(StackIcon::forFiles(paths, row.provider ? blueIcons : nullptr, row.size),
                   row.size, row.front);
    }
    EXPECT_TRUE(StackIcon::forFiles({}, blueIcons).isEmpty());
    expectIcon(StackIcon::forText(), 256, Paper);
}

} // namespace
