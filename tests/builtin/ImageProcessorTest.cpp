#include "builtin/images/ImageProcessor.h"

#include "tests/support/TestHome.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <cstdlib>
#include <gtest/gtest.h>

// GLib names struct members "signals", which Qt defines as a macro.
#undef signals
#include <vips/vips8>

using namespace ImageProcessing;

namespace {

// GLib reads HOME and XDG_DATA_HOME once per process, so the test Trash is set up before
// main(): files in temporary folders then share the home's file system and land in
// $XDG_DATA_HOME/Trash.
struct TrashHome {
    QByteArray root;
    TrashHome()
    {
        QByteArray pattern = QDir::tempPath().toLocal8Bit() + "/skelvo-images-home-XXXXXX";
        root = QByteArray(::mkdtemp(pattern.data()));
        ::setenv("HOME", root.constData(), 1);
        ::setenv("XDG_DATA_HOME", (root + "/data").constData(), 1);
        QDir().mkpath(QString::fromLocal8Bit(root + "/data"));
    }
    ~TrashHome() { QDir(QString::fromLocal8Bit(root)).removeRecursively(); }
    QString trashFolder() const { return QString::fromLocal8Bit(root) + "/data/Trash"; }
};
const TrashHome trashHome;

// Photographic-looking content: smooth colour gradients with noise, optionally with alpha.
vips::VImage makeImage(int width, int height, bool alpha = false)
{
    ensureInitialised();
    vips::VImage xy = vips::VImage::xyz(width, height);
    vips::VImage x = xy[0] * (255.0 / width);
    vips::VImage y = xy[1] * (255.0 / height);
    vips::VImage noise =
        vips::VImage::gaussnoise(width, height, vips::VImage::option()->set("sigma", 40.0));
    vips::VImage blue = (noise + (x + y) / 2).cast(VIPS_FORMAT_UCHAR);
    vips::VImage rgb = x.cast(VIPS_FORMAT_UCHAR).bandjoin(y.cast(VIPS_FORMAT_UCHAR)).bandjoin(blue);
    rgb = rgb.copy(vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
    if (alpha)
        rgb = rgb.bandjoin((x * 0 + 128).cast(VIPS_FORMAT_UCHAR));
    return rgb;
}

QString makeImageFile(const QString& path, int width, int height, bool alpha = false)
{
    // The saver is chosen by the suffix; copy() so metadata changes stay local.
    makeImage(width, height, alpha).copy().write_to_file(QFile::encodeName(path).constData());
    return path;
}

// Width x height x bands and the loader, after decoding every pixel so a damaged file fails.
QString readBack(const QString& path)
{
    vips::VImage image = vips::VImage::new_from_file(QFile::encodeName(path).constData());
    (void)image.avg();
    return QStringLiteral("%1x%2x%3 %4")
        .arg(image.width())
        .arg(image.height())
        .arg(image.bands())
        .arg(QString::fromUtf8(image.get_string("vips-loader")));
}

Options resizeOptions(double width, double height, const QString& format)
{
    Options options;
    options.mode = Mode::Resize;
    options.maxWidth = width;
    options.maxHeight = height;
    options.format = format;
    options.keepOriginals = true;
    return options;
}

TEST(ImageRules, TargetSize)
{
    struct Row {
        int w, h;
        double maxWidth, maxHeight;
        bool keep;
        int expectedW, expectedH;
    };
    const Row rows[] = {
        {4000, 3000, 1000, 1000, false, 1000, 750}, // fit inside the box
        {4000, 3000, 0, 500, false, 667, 500},      // only H: 666.67
        {4000, 3000, 1000, 0, false, 1000, 750},    // only W
        {3000, 4000, 1000, 1000, false, 750, 1000}, // portrait
        {3, 2, 0, 1, false, 2, 1},                  // 1.5 rounds up
        {10, 5, 3, 0, false, 3, 2},                 // 1.5 rounds up
        {5, 3, 3, 100, false, 3, 2},                // scale 0.6: 1.8
        {4, 1, 2, 0, false, 2, 1},                  // 0.5 rounds up
        {333, 100, 100, 100, false, 100, 30},       // 30.03
        {200, 100, 300, 300, false, 300, 150},      // enlarges to fit
        {1000, 10, 10, 0, false, 10, 1},            // never below 1
        {4000, 3000, 0, 0, false, 4000, 3000},      // no limits
        {4000, 3000, -5, -1, false, 4000, 3000},    // only > 0 counts
        {4000, 3000, 1000, 1000, true, 4000, 3000}, // convert only
        {4000, 3000, 999.5, 0, false, 1000, 750},   // W read as a float
    };
    for (const Row& r : rows) {
        EXPECT_EQ(targetSize(QSize(r.w, r.h), r.maxWidth, r.maxHeight, r.keep),
                  QSize(r.expectedW, r.expectedH))
            << r.w << 'x' << r.h << " in " << r.maxWidth << 'x' << r.maxHeight;
    }
}

TEST(ImageRules, OptionsFromTheActionVariables)
{
    const auto summary = [](const QMap<QString, QString>& variables, Mode mode) {
        const Options o = optionsFromVariables(variables, mode);
        return QStringLiteral("%1 %2 %3 %4 %5 %6")
            .arg(o.maxWidth)
            .arg(o.maxHeight)
            .arg(o.quality)
            .arg(o.format.isEmpty() ? "_" : o.format)
            .arg(o.keepOriginals ? "keep" : "-")
            .arg(o.convertOnly ? "convert" : "-");
    };
    EXPECT_EQ(summary({{"output_width", "1000"},
                       {"output_height", ""},
                       {"output_quality", "85"},
                       {"output_format", "webp"},
                       {"keep_originals", "yes"}},
                      Mode::Resize),
              "1000 0 85 webp keep -");
    EXPECT_EQ(summary({}, Mode::Convert), "0 0 100 _ - convert");
    EXPECT_EQ(summary({{"convert_only", " 1 "}, {"output_format", ".png"}}, Mode::Resize),
              "0 0 100 png - convert");
    for (const char* no : {"no", "NO", "false", "0", "off", ""}) {
        EXPECT_EQ(summary({{"keep_originals", no}, {"convert_only", no}}, Mode::Resize),
                  "0 0 100 _ - -")
            << no;
    }
    for (const char* extension :
         {"png", "jpg", "jpeg", "webp", "tif", "tiff", "gif", "heic", "heif", "JPG", ".png"})
        EXPECT_TRUE(isSupportedFormat(QString::fromLatin1(extension))) << extension;
    for (const char* extension : {"bmp", "txt", "", "pdf"})
        EXPECT_FALSE(isSupportedFormat(QString::fromLatin1(extension))) << extension;
}

TEST(ImageRules, CollectImagesExpandsFoldersOneLevelAndFiltersByExtension)
{
    TestHome home;
    for (const char* name : {"photos/b.JPG", "photos/a.png", "photos/notes.txt", "photos/sub/c.png",
                             "photos/d.HEIC", "x.webp", "readme.md"})
        home.writeFile(QString::fromLatin1(name), {});
    const QString folder = home.path() + "/photos";
    const QString loose = home.path() + "/x.webp";
    const QString text = home.path() + "/readme.md";
    EXPECT_EQ(collectImages({loose, folder, text}),
              (QStringList{loose, folder + "/a.png", folder + "/b.JPG", folder + "/d.HEIC"}));
    QDir().mkpath(home.path() + "/empty");
    EXPECT_TRUE(collectImages({home.path() + "/empty", text}).isEmpty());
}

TEST(ImageCodecs, AlphaIsFlattenedForJpegOrientationIsHonouredAndTypeKept)
{
    QTemporaryDir dir;
    const QString logo = makeImageFile(dir.filePath("logo.png"), 120, 80, true);
    ImageOutcome outcome = processImage(logo, resizeOptions(60, 60, "jpg"));
    EXPECT_EQ(readBack(outcome.output), "60x40x3 jpegload");
    outcome = processImage(logo, resizeOptions(60, 60, "webp"));
    EXPECT_EQ(readBack(outcome.output), "60x40x4 webpload");

    vips::VImage image = makeImage(400, 200).copy();
    image.set("orientation", 6); // stored landscape, shown portrait
    const QString rotated = dir.filePath("rotated.jpg");
    image.write_to_file(QFile::encodeName(rotated).constData());
    outcome = processImage(rotated, resizeOptions(100, 100, "png"));
    EXPECT_EQ(readBack(outcome.output), "50x100x3 pngload");

    // No format keeps the input's type; the original is never overwritten.
    const QString shot = makeImageFile(dir.filePath("shot.webp"), 200, 100);
    outcome = processImage(shot, resizeOptions(50, 0, {}));
    EXPECT_EQ(outcome.output, dir.filePath("shot-resized.webp"));
    EXPECT_EQ(readBack(outcome.output), "50x25x3 webpload");
    EXPECT_EQ(readBack(shot), "200x100x3 webpload");
}

TEST(ImageCodecs, CollisionsTakeTheSuffixAndThenACounter)
{
    QTemporaryDir dir;
    const QString input = makeImageFile(dir.filePath("photo.png"), 300, 200);
    Options convert;
    convert.mode = Mode::Convert;
    convert.maxWidth = 50; // ignored when converting
    convert.format = "jpg";
    convert.keepOriginals = true;
    QStringList outputs;
    for (int i = 0; i < 3; ++i)
        outputs << QFileInfo(processImage(input, convert).output).fileName();
    const Options resize = resizeOptions(100, 0, "jpg");
    for (int i = 0; i < 2; ++i)
        outputs << QFileInfo(processImage(input, resize).output).fileName();
    EXPECT_EQ(outputs, (QStringList{"photo.jpg", "photo-converted.jpg", "photo-converted-2.jpg",
                                    "photo-resized.jpg", "photo-resized-2.jpg"}));
    EXPECT_EQ(readBack(dir.filePath("photo.jpg")), "300x200x3 jpegload");
    EXPECT_EQ(outputPathFor(dir.filePath("a.b.tiff"), "/other", "gif", Mode::Convert),
              "/other/a.b.gif");
}

TEST(ImageCodecs, QualityAppliesToJpegAndWebpOnly)
{
    QTemporaryDir dir;
    const QString input = makeImageFile(dir.filePath("noise.png"), 800, 600);
    const auto encodedSize = [&](const char* format, double quality) {
        Options options = resizeOptions(600, 600, QString::fromLatin1(format));
        options.quality = quality;
        options.outputFolder = dir.filePath("out");
        QDir().mkpath(options.outputFolder);
        return QFileInfo(processImage(input, options).output).size();
    };
    for (const char* format : {"jpg", "webp"}) {
        EXPECT_LT(encodedSize(format, 20) * 2, encodedSize(format, 95)) << format;
        // 100 and above mean the best quality alike.
        EXPECT_EQ(encodedSize(format, 100), encodedSize(format, 250)) << format;
    }
    EXPECT_EQ(encodedSize("png", 10), encodedSize("png", 100));
}

class ImagePool : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Workers, ImagePool, testing::Values(1, 2, 3));

TEST_P(ImagePool, UnreadableImagesAreSkippedAndReported)
{
    QTemporaryDir dir;
    const QString first = makeImageFile(dir.filePath("first.png"), 80, 60);
    const QString garbage = dir.filePath("broken.jpg");
    QFile broken(garbage);
    ASSERT_TRUE(broken.open(QIODevice::WriteOnly));
    broken.write("this is not a picture at all");
    broken.close();
    // A JPEG cut in half: its header reads but its pixels do not.
    const QString truncated = makeImageFile(dir.filePath("truncated.jpg"), 800, 600);
    ASSERT_TRUE(QFile(truncated).resize(QFileInfo(truncated).size() / 2));
    const QString last = makeImageFile(dir.filePath("last.gif"), 80, 60);
    Options options = resizeOptions(40, 40, "png");
    options.outputFolder = dir.filePath("out");
    QDir().mkpath(options.outputFolder);
    options.keepOriginals = false;
    QList<int> progress;
    Callbacks callbacks;
    callbacks.finished = [&](int done, int total, const ImageOutcome&) {
        progress << done << total;
    };
    const RunResult result =
        processImages({first, garbage, truncated, last}, options, callbacks, nullptr, GetParam());
    EXPECT_EQ(progress, (QList<int>{1, 4, 2, 4, 3, 4, 4, 4}));
    EXPECT_EQ(result.written, (QStringList{options.outputFolder + "/first.png",
                                           options.outputFolder + "/last.png"}));
    EXPECT_EQ(result.failed, (QStringList{garbage, truncated}));
    EXPECT_TRUE(result.images[1].error.startsWith("Could not convert broken.jpg: "));
    EXPECT_TRUE(result.images[2].error.startsWith("Could not convert truncated.jpg: "));
    EXPECT_EQ(QDir(options.outputFolder).entryList(QDir::Files | QDir::Hidden),
              (QStringList{"first.png", "last.png"}))
        << "no partial or temporary files";
    EXPECT_TRUE(QFileInfo::exists(garbage) && QFileInfo::exists(truncated))
        << "a skipped original is not trashed";

    const RunResult refused = processImages({first}, resizeOptions(10, 10, "bmp"));
    EXPECT_EQ(refused.error, "Unsupported output format: bmp");
    EXPECT_TRUE(refused.images.isEmpty());
}

TEST(ImageRuns, CancelStopsAfterTheCurrentImage)
{
    QTemporaryDir dir;
    QStringList inputs;
    for (int i = 1; i <= 4; ++i)
        inputs << makeImageFile(dir.filePath(QStringLiteral("img%1.png").arg(i)), 64, 64);
    std::atomic<bool> cancel{false};
    QStringList started;
    Callbacks callbacks;
    callbacks.started = [&](int index, int, const QString& input) {
        started << input;
        if (index == 1)
            cancel = true; // arrives while the second image is being made
    };
    const RunResult result =
        processImages(inputs, resizeOptions(32, 32, "jpg"), callbacks, &cancel);
    EXPECT_TRUE(result.cancelled);
    EXPECT_EQ(started, inputs.mid(0, 2));
    EXPECT_EQ(result.written, (QStringList{dir.filePath("img1.jpg"), dir.filePath("img2.jpg")}));
}

// Every output file's name and bytes.
QMap<QString, QByteArray> folderContents(const QString& folder)
{
    QMap<QString, QByteArray> contents;
    for (const QFileInfo& file : QDir(folder).entryInfoList(QDir::Files | QDir::Hidden)) {
        QFile data(file.filePath());
        EXPECT_TRUE(data.open(QIODevice::ReadOnly));
        contents.insert(file.fileName(), data.readAll());
    }
    return contents;
}

TEST_P(ImagePool, NamesContentsAndReportsMatchARunOneImageAtATime)
{
    QTemporaryDir dir;
    // Two pictures named "photo": the first is the larger and usually done last, yet it
    // takes the plain name as it does one image after the other.
    QDir().mkpath(dir.filePath("a"));
    QDir().mkpath(dir.filePath("b"));
    QStringList inputs{makeImageFile(dir.filePath("a/photo.png"), 1800, 1200),
                       makeImageFile(dir.filePath("b/photo.png"), 40, 30)};
    for (int i = 1; i <= 5; ++i)
        inputs << makeImageFile(dir.filePath(QStringLiteral("b/%1.webp").arg(i)), 90 * i, 60);
    const auto run = [&](int workers, const QString& out, QStringList* events) {
        Options options = resizeOptions(300, 300, "jpg");
        options.outputFolder = dir.filePath(out);
        QDir().mkpath(options.outputFolder);
        Callbacks callbacks;
        callbacks.started = [events](int index, int, const QString&) {
            *events << QStringLiteral("start %1").arg(index);
        };
        callbacks.finished = [events](int done, int total, const ImageOutcome& outcome) {
            *events << QStringLiteral("done %1/%2 %3")
                           .arg(done)
                           .arg(total)
                           .arg(QFileInfo(outcome.output).fileName());
        };
        processImages(inputs, options, callbacks, nullptr, workers);
        return folderContents(options.outputFolder);
    };
    QStringList alone;
    const QMap<QString, QByteArray> expected = run(1, "alone", &alone);
    QStringList pooled;
    const QMap<QString, QByteArray> actual = run(GetParam(), "pool", &pooled);
    EXPECT_EQ(actual.keys(), expected.keys());
    EXPECT_TRUE(actual == expected) << "same bytes under the same names";
    EXPECT_EQ(readBack(dir.filePath("pool/photo.jpg")), "300x200x3 jpegload");
    EXPECT_EQ(readBack(dir.filePath("pool/photo-resized.jpg")), "300x225x3 jpegload");
    // The finishing reports come in input order; the pool hands out as many images as it
    // has workers before the first is reported.
    const auto only = [](const QStringList& events, const QString& kind) {
        return events.filter(QRegularExpression(u'^' + kind));
    };
    EXPECT_EQ(only(pooled, "done"), only(alone, "done"));
    EXPECT_EQ(pooled.mid(0, GetParam()), only(alone, "start").mid(0, GetParam()));
}

TEST_P(ImagePool, AnImageDroppedTwiceIsGoneTheSecondTimeWhenOriginalsAreTrashed)
{
    QTemporaryDir dir;
    const QString twice = makeImageFile(dir.filePath("twice.png"), 600, 400);
    const QString other = makeImageFile(dir.filePath("other.png"), 60, 40);
    Options options = resizeOptions(100, 100, "jpg");
    options.keepOriginals = false;
    const RunResult result = processImages({twice, twice, other}, options, {}, nullptr, GetParam());
    EXPECT_EQ(result.written, (QStringList{dir.filePath("twice.jpg"), dir.filePath("other.jpg")}));
    EXPECT_EQ(result.failed, QStringList{twice});
}

TEST(ImageRuns, ACancelTakesNoNewImageAndEndsAfterThoseInProgress)
{
    QTemporaryDir dir;
    QStringList inputs;
    for (int i = 1; i <= 10; ++i)
        inputs << makeImageFile(dir.filePath(QStringLiteral("img%1.png").arg(i)), 400, 300);
    Options options = resizeOptions(200, 200, "webp");
    options.outputFolder = dir.filePath("out");
    QDir().mkpath(options.outputFolder);
    std::atomic<bool> cancel{false};
    QStringList started;
    QStringList startedAfterCancel;
    Callbacks callbacks;
    callbacks.started = [&](int, int, const QString& input) {
        (cancel ? startedAfterCancel : started) << input;
    };
    // The cancel comes with the first report, while the second worker has an image.
    callbacks.finished = [&](int, int, const ImageOutcome&) { cancel = true; };
    const RunResult result = processImages(inputs, options, callbacks, &cancel, 2);
    EXPECT_TRUE(startedAfterCancel.isEmpty());
    ASSERT_GE(started.size(), 2);
    EXPECT_EQ(result.cancelled, started.size() < inputs.size());
    EXPECT_EQ(result.failed, QStringList());
    QStringList names;
    for (const QString& input : started)
        names << QFileInfo(input).completeBaseName() + ".webp";
    names.sort();
    EXPECT_EQ(QDir(options.outputFolder).entryList(QDir::Files | QDir::Hidden, QDir::Name), names)
        << "only whole outputs of the started images, no temporaries";
    for (const QString& output : result.written)
        EXPECT_EQ(readBack(output), "200x150x3 webpload");
}

TEST(ImageRuns, OriginalsGoToTheTrashUnlessKept)
{
    QTemporaryDir dir;
    const QString kept = makeImageFile(dir.filePath("kept.png"), 50, 50);
    const QString trashed = makeImageFile(dir.filePath("trash me.tiff"), 50, 50);
    Options options = resizeOptions(25, 25, "webp");
    ImageOutcome outcome = processImage(kept, options);
    EXPECT_TRUE(outcome.ok() && !outcome.trashed && QFileInfo::exists(kept));
    options.keepOriginals = false;
    outcome = processImage(trashed, options);
    ASSERT_TRUE(outcome.ok()) << outcome.error.toStdString();
    EXPECT_TRUE(outcome.trashed) << outcome.trashError.toStdString();
    EXPECT_FALSE(QFileInfo::exists(trashed));
    const QString trash = trashHome.trashFolder();
    EXPECT_EQ(readBack(trash + "/files/trash me.tiff"), "50x50x3 tiffload");
    EXPECT_TRUE(QFileInfo::exists(trash + "/info/trash me.tiff.trashinfo"));
}

} // namespace
