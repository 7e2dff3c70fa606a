#include "builtin/images/WebpWriter.h"

#include "builtin/images/ImageProcessor.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtEndian>

#include <gtest/gtest.h>

// GLib names struct members "signals", which Qt defines as a macro.
#undef signals
#include <vips/vips8>

namespace {

// Smooth gradients with noise in the given bands; alpha, when asked, is half transparent on
// the left and opaque on the right.
vips::VImage pattern(int width, int height, int bands, bool alpha)
{
    ImageProcessing::ensureInitialised();
    vips::VImage xy = vips::VImage::xyz(width, height);
    vips::VImage noise =
        vips::VImage::gaussnoise(width, height, vips::VImage::option()->set("sigma", 30.0));
    vips::VImage image = (xy[0] * (255.0 / width) + noise).cast(VIPS_FORMAT_UCHAR);
    for (int band = 1; band < bands; ++band)
        image = image.bandjoin((xy[1] * (255.0 / height) + noise * band).cast(VIPS_FORMAT_UCHAR));
    image = image.copy(vips::VImage::option()->set(
        "interpretation", bands == 1 ? VIPS_INTERPRETATION_B_W : VIPS_INTERPRETATION_sRGB));
    if (alpha)
        image = image.bandjoin((xy[0] < width / 2).ifthenelse(96, 255).cast(VIPS_FORMAT_UCHAR));
    return image;
}

// The image's own chunks (the VP8 bitstream and the alpha plane), without metadata.
QByteArray imageChunks(const QByteArray& file)
{
    QByteArray chunks;
    for (qsizetype at = 12; at + 8 <= file.size();) {
        const QByteArray type = file.mid(at, 4);
        const qsizetype size = qFromLittleEndian<quint32>(file.constData() + at + 4);
        if (type == "VP8 " || type == "ALPH")
            chunks += file.mid(at, 8 + size);
        at += 8 + size + (size & 1);
    }
    return chunks;
}

} // namespace

// Strip by strip, the image is encoded to the byte as libvips' own saver, which converts the
// whole image at once, encodes it.
TEST(WebpWriter, WritesWhatTheLibrarySaverWrites)
{
    const struct {
        const char* name;
        int width, height, bands;
        bool alpha;
        int quality;
    } rows[] = {
        {"rgb, odd size", 333, 77, 3, false, 75},
        {"rgb, many strips", 1200, 801, 3, false, 90},
        {"rgba, part transparent", 200, 131, 3, true, 75},
        {"rgba, opaque alpha", 64, 64, 3, false, 50},
        {"grey", 101, 50, 1, false, 75},
        {"grey with alpha", 90, 33, 1, true, 0},
        {"one pixel", 1, 1, 3, false, 100},
    };
    QTemporaryDir dir;
    for (const auto& row : rows) {
        vips::VImage image = pattern(row.width, row.height, row.bands, row.alpha);
        if (std::string(row.name) == "rgba, opaque alpha")
            image = image.bandjoin(255);
        const QByteArray path = QFile::encodeName(dir.filePath(QString::fromUtf8(row.name)));
        writeWebp(image, path, row.quality);
        QFile written(QString::fromUtf8(path));
        ASSERT_TRUE(written.open(QIODevice::ReadOnly)) << row.name;
        const auto expected = image.webpsave_buffer(vips::VImage::option()->set("Q", row.quality));
        const QByteArray libraryBytes(reinterpret_cast<const char*>(VIPS_AREA(expected)->data),
                                      qsizetype(VIPS_AREA(expected)->length));
        vips_area_unref(VIPS_AREA(expected));
        const QByteArray ours = written.readAll();
        EXPECT_FALSE(imageChunks(ours).isEmpty()) << row.name;
        EXPECT_EQ(imageChunks(ours), imageChunks(libraryBytes)) << row.name;
    }
}

TEST(WebpWriter, AnImageTooLargeForWebpFailsAndAnUnwritablePathToo)
{
    QTemporaryDir dir;
    EXPECT_THROW(
        writeWebp(pattern(16384, 2, 3, false), QFile::encodeName(dir.filePath("wide")), 75),
        vips::VError);
    EXPECT_THROW(
        writeWebp(pattern(8, 8, 3, false), QFile::encodeName(dir.filePath("no/such/x")), 75),
        vips::VError);
}

// Without a profile in the file, colours described by one must arrive as sRGB.
TEST(WebpWriter, PixelsWithAColourProfileAreWrittenInSrgb)
{
    QTemporaryDir dir;
    // Smooth and saturated: lossy coding changes it little, the profile a lot.
    const vips::VImage xy = vips::VImage::xyz(64, 64);
    const vips::VImage srgb =
        (xy[0] * 4)
            .bandjoin(255 - xy[1] * 4)
            .bandjoin(xy[0] * 2)
            .cast(VIPS_FORMAT_UCHAR)
            .copy(vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
    const vips::VImage p3 =
        srgb.icc_transform("p3", vips::VImage::option()->set("input_profile", "srgb"));
    ASSERT_NE(p3.get_typeof(VIPS_META_ICC_NAME), 0u);
    const auto roundTrip = [&](const vips::VImage& image, const char* name) {
        const QByteArray path = QFile::encodeName(dir.filePath(QString::fromLatin1(name)));
        writeWebp(image, path, 100);
        return vips::VImage::new_from_file(path.constData());
    };
    const vips::VImage fromP3 = roundTrip(p3, "p3.webp");
    const vips::VImage fromSrgb = roundTrip(srgb, "srgb.webp");
    EXPECT_EQ(fromP3.get_typeof(VIPS_META_ICC_NAME), 0u);
    // Both went through lossy coding; their difference is the colour conversion's rounding,
    // far below the difference of the P3 numbers themselves.
    const double converted = (fromP3 - fromSrgb).abs().avg();
    const double unconverted = (p3 - srgb).abs().avg();
    EXPECT_LT(converted * 4, unconverted) << converted << " " << unconverted;
}
