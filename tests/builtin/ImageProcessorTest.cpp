#include "builtin/images/ImageProcessor.h"

#include "tests/support/TestHome.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QUrl>

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

void writeImage(const vips::VImage& image, const QString& path)
{
    // The saver is chosen by the suffix; copy() so metadata changes stay local.
    image.copy().write_to_file(QFile::encodeName(path).constData());
}

QString makeImageFile(const QString& path, int width, int height, bool alpha = false)
{
    writeImage(makeImage(width, height, alpha), path);
    return path;
}

struct ReadBack {
    int width = 0;
    int height = 0;
    int bands = 0;
    QString loader;
};

ReadBack readBack(const QString& path)
{
    vips::VImage image = vips::VImage::new_from_file(QFile::encodeName(path).constData());
    ReadBack info{image.width(), image.height(), image.bands(), {}};
    info.loader = QString::fromUtf8(image.get_string("vips-loader"));
    // Decode every pixel, so a damaged file fails here and not later.
    (void)image.avg();
    return info;
}

QString loaderFor(const QString& extension)
{
    const QString e = extension.toLower();
    if (e == u"jpg" || e == u"jpeg")
        return QStringLiteral("jpegload");
    if (e == u"tif" || e == u"tiff")
        return QStringLiteral("tiffload");
    if (e == u"heic" || e == u"heif")
        return QStringLiteral("heifload");
    return e + QStringLiteral("load");
}

QStringList fileNames(const QString& folder)
{
    return QDir(folder).entryList(QDir::Files | QDir::Hidden, QDir::Name);
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

// ---- Target size rules ----

struct SizeRow {
    int w, h;
    double maxWidth, maxHeight;
    bool keep;
    int expectedW, expectedH;
};

void PrintTo(const SizeRow& row, std::ostream* out)
{
    *out << row.w << 'x' << row.h << " in " << row.maxWidth << 'x' << row.maxHeight
         << (row.keep ? " keep" : "") << " -> " << row.expectedW << 'x' << row.expectedH;
}

class TargetSizeTest : public testing::TestWithParam<SizeRow> {};

TEST_P(TargetSizeTest, FollowsTheRules)
{
    const SizeRow row = GetParam();
    EXPECT_EQ(targetSize(QSize(row.w, row.h), row.maxWidth, row.maxHeight, row.keep),
              QSize(row.expectedW, row.expectedH));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, TargetSizeTest,
    testing::Values(SizeRow{4000, 3000, 1000, 1000, false, 1000, 750}, // fit inside the box
                    SizeRow{4000, 3000, 0, 500, false, 667, 500},      // only H: 666.67
                    SizeRow{4000, 3000, 1000, 0, false, 1000, 750},    // only W
                    SizeRow{3000, 4000, 1000, 1000, false, 750, 1000}, // portrait
                    SizeRow{3, 2, 0, 1, false, 2, 1},                  // 1.5 rounds up
                    SizeRow{10, 5, 3, 0, false, 3, 2},                 // 1.5 rounds up
                    SizeRow{5, 3, 3, 100, false, 3, 2},                // scale 0.6: 1.8
                    SizeRow{4, 1, 2, 0, false, 2, 1},                  // 0.5 rounds up
                    SizeRow{333, 100, 100, 100, false, 100, 30},       // 30.03
                    SizeRow{200, 100, 300, 300, false, 300, 150},      // enlarges to fit
                    SizeRow{1000, 10, 10, 0, false, 10, 1},            // never below 1
                    SizeRow{4000, 3000, 0, 0, false, 4000, 3000},      // no limits
                    SizeRow{4000, 3000, -5, -1, false, 4000, 3000},    // only > 0 counts
                    SizeRow{4000, 3000, 1000, 1000, true, 4000, 3000}, // convert only
                    SizeRow{4000, 3000, 999.5, 0, false, 1000, 750})); // W read as a float

// ---- Options ----

TEST(ImageOptionsTest, ReadsTheActionVariables)
{
    const QMap<QString, QString> variables{
        {QStringLiteral("output_width"), QStringLiteral("1000")},
        {QStringLiteral("output_height"), QStringLiteral("")},
        {QStringLiteral("output_quality"), QStringLiteral("85")},
        {QStringLiteral("output_format"), QStringLiteral("webp")},
        {QStringLiteral("keep_originals"), QStringLiteral("yes")}};
    const Options options = optionsFromVariables(variables, Mode::Resize);
    EXPECT_EQ(options.maxWidth, 1000);
    EXPECT_EQ(options.maxHeight, 0);
    EXPECT_EQ(options.quality, 85);
    EXPECT_EQ(options.format, QStringLiteral("webp"));
    EXPECT_TRUE(options.keepOriginals);
    EXPECT_FALSE(options.convertOnly);
}

TEST(ImageOptionsTest, DefaultsAndBooleans)
{
    Options options = optionsFromVariables({}, Mode::Convert);
    EXPECT_EQ(options.quality, 100);
    EXPECT_FALSE(options.keepOriginals);
    EXPECT_TRUE(options.convertOnly);
    for (const char* no : {"no", "NO", "false", "0", "off", ""}) {
        options = optionsFromVariables({{QStringLiteral("keep_originals"), QString::fromLatin1(no)},
                                        {QStringLiteral("convert_only"), QString::fromLatin1(no)}},
                                       Mode::Resize);
        EXPECT_FALSE(options.keepOriginals) << no;
        EXPECT_FALSE(options.convertOnly) << no;
    }
    options = optionsFromVariables({{QStringLiteral("convert_only"), QStringLiteral("1")},
                                    {QStringLiteral("output_format"), QStringLiteral(".png")}},
                                   Mode::Resize);
    EXPECT_TRUE(options.convertOnly);
    EXPECT_EQ(options.format, QStringLiteral("png"));
}

// ---- Collecting inputs ----

TEST(CollectImagesTest, ExpandsFoldersAndFiltersByExtension)
{
    QTemporaryDir dir;
    const QString folder = dir.filePath(QStringLiteral("photos"));
    QDir().mkpath(folder + QStringLiteral("/sub"));
    for (const char* name : {"b.JPG", "a.png", "notes.txt", "sub/c.png", "d.HEIC"}) {
        QFile file(folder + u'/' + QString::fromLatin1(name));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    }
    const QString loose = dir.filePath(QStringLiteral("x.webp"));
    const QString text = dir.filePath(QStringLiteral("readme.md"));
    for (const QString& path : {loose, text}) {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    }
    EXPECT_EQ(collectImages({loose, folder, text}),
              (QStringList{loose, folder + QStringLiteral("/a.png"),
                           folder + QStringLiteral("/b.JPG"), folder + QStringLiteral("/d.HEIC")}));

    const QString empty = dir.filePath(QStringLiteral("empty"));
    QDir().mkpath(empty);
    EXPECT_TRUE(collectImages({empty, text}).isEmpty());
}

TEST(CollectImagesTest, AllowedExtensions)
{
    for (const char* extension :
         {"png", "jpg", "jpeg", "webp", "tif", "tiff", "gif", "heic", "heif", "JPG", ".png"})
        EXPECT_TRUE(isSupportedFormat(QString::fromLatin1(extension))) << extension;
    for (const char* extension : {"bmp", "txt", "", "pdf"})
        EXPECT_FALSE(isSupportedFormat(QString::fromLatin1(extension))) << extension;
}

// ---- Every format in and out ----

const char* const kInputFormats[] = {"jpg",  "jpeg", "png",  "webp", "tif",
                                     "tiff", "gif",  "heic", "heif"};

class FormatTest : public testing::TestWithParam<const char*> {};

TEST_P(FormatTest, ResizesEveryInputFormatToThisFormat)
{
    QTemporaryDir dir;
    const QString outputFormat = QString::fromLatin1(GetParam());
    const QString inputs = dir.filePath(QStringLiteral("in"));
    const QString outputs = dir.filePath(QStringLiteral("out"));
    QDir().mkpath(inputs);
    QDir().mkpath(outputs);
    QStringList paths;
    for (const char* extension : kInputFormats)
        paths << makeImageFile(inputs + QStringLiteral("/photo-") + QString::fromLatin1(extension) +
                                   u'.' + QString::fromLatin1(extension),
                               400, 300);

    Options options = resizeOptions(100, 100, outputFormat);
    options.outputFolder = outputs;
    const RunResult result = processImages(paths, options);
    ASSERT_TRUE(result.error.isEmpty()) << result.error.toStdString();
    ASSERT_EQ(result.written.size(), paths.size());
    EXPECT_TRUE(result.failed.isEmpty());
    for (qsizetype i = 0; i < paths.size(); ++i) {
        const QString expected =
            outputs + u'/' + QFileInfo(paths[i]).completeBaseName() + u'.' + outputFormat;
        EXPECT_EQ(result.written[i], expected);
        const ReadBack info = readBack(expected);
        EXPECT_EQ(info.width, 100) << expected.toStdString();
        EXPECT_EQ(info.height, 75) << expected.toStdString();
        EXPECT_EQ(info.loader, loaderFor(outputFormat));
        EXPECT_EQ(result.images[i].size, QSize(100, 75));
        EXPECT_TRUE(QFileInfo::exists(paths[i])) << "kept when asked";
    }
    // No temporary files are left behind.
    EXPECT_EQ(fileNames(outputs).size(), paths.size());
}

TEST_P(FormatTest, ConvertKeepsThePixelSize)
{
    QTemporaryDir dir;
    const QString outputFormat = QString::fromLatin1(GetParam());
    const QString input = makeImageFile(dir.filePath(QStringLiteral("picture.png")), 321, 123);
    Options options;
    options.mode = Mode::Convert;
    options.maxWidth = 50; // ignored when converting
    options.format = outputFormat;
    options.keepOriginals = true;
    const ImageOutcome outcome = processImage(input, options);
    ASSERT_TRUE(outcome.ok()) << outcome.error.toStdString();
    const QString expectedName = outputFormat == u"png" ? QStringLiteral("picture-converted.png")
                                                        : QStringLiteral("picture.") + outputFormat;
    EXPECT_EQ(outcome.output, dir.filePath(expectedName));
    const ReadBack info = readBack(outcome.output);
    EXPECT_EQ(info.width, 321);
    EXPECT_EQ(info.height, 123);
    EXPECT_EQ(info.loader, loaderFor(outputFormat));
}

INSTANTIATE_TEST_SUITE_P(Formats, FormatTest,
                         testing::Values("jpg", "jpeg", "png", "webp", "tif", "tiff", "gif", "heic",
                                         "heif"));

TEST(ImageProcessorTest, EmptyFormatKeepsTheInputType)
{
    QTemporaryDir dir;
    const QString input = makeImageFile(dir.filePath(QStringLiteral("shot.webp")), 200, 100);
    const ImageOutcome outcome = processImage(input, resizeOptions(50, 0, {}));
    ASSERT_TRUE(outcome.ok()) << outcome.error.toStdString();
    EXPECT_EQ(outcome.output, dir.filePath(QStringLiteral("shot-resized.webp")));
    EXPECT_EQ(readBack(outcome.output).loader, QStringLiteral("webpload"));
    EXPECT_EQ(readBack(input).width, 200) << "the original is never overwritten";
}

TEST(ImageProcessorTest, AlphaIsFlattenedForJpegAndKeptForPng)
{
    QTemporaryDir dir;
    const QString input = makeImageFile(dir.filePath(QStringLiteral("logo.png")), 120, 80, true);
    const ImageOutcome jpeg = processImage(input, resizeOptions(60, 60, QStringLiteral("jpg")));
    ASSERT_TRUE(jpeg.ok()) << jpeg.error.toStdString();
    EXPECT_EQ(readBack(jpeg.output).bands, 3);
    const ImageOutcome webp = processImage(input, resizeOptions(60, 60, QStringLiteral("webp")));
    ASSERT_TRUE(webp.ok()) << webp.error.toStdString();
    EXPECT_EQ(readBack(webp.output).bands, 4);
}

// ---- Names and collisions ----

TEST(ImageProcessorTest, CollisionsTakeTheSuffixAndThenACounter)
{
    QTemporaryDir dir;
    const QString input = makeImageFile(dir.filePath(QStringLiteral("photo.png")), 300, 200);
    Options convert;
    convert.mode = Mode::Convert;
    convert.format = QStringLiteral("jpg");
    convert.keepOriginals = true;
    QStringList outputs;
    for (int i = 0; i < 4; ++i)
        outputs << processImage(input, convert).output;
    EXPECT_EQ(outputs, (QStringList{dir.filePath(QStringLiteral("photo.jpg")),
                                    dir.filePath(QStringLiteral("photo-converted.jpg")),
                                    dir.filePath(QStringLiteral("photo-converted-2.jpg")),
                                    dir.filePath(QStringLiteral("photo-converted-3.jpg"))}));

    const Options resize = resizeOptions(100, 0, QStringLiteral("jpg"));
    EXPECT_EQ(processImage(input, resize).output,
              dir.filePath(QStringLiteral("photo-resized.jpg")));
    EXPECT_EQ(processImage(input, resize).output,
              dir.filePath(QStringLiteral("photo-resized-2.jpg")));
    EXPECT_EQ(readBack(dir.filePath(QStringLiteral("photo.jpg"))).width, 300)
        << "an existing file is never overwritten";
}

TEST(ImageProcessorTest, OutputPathRules)
{
    QTemporaryDir dir;
    const QString input = dir.filePath(QStringLiteral("a.b.tiff"));
    EXPECT_EQ(outputPathFor(input, {}, QStringLiteral("png"), Mode::Resize),
              dir.filePath(QStringLiteral("a.b.png")));
    const QString other = dir.filePath(QStringLiteral("other"));
    EXPECT_EQ(outputPathFor(input, other, QStringLiteral("gif"), Mode::Convert),
              other + QStringLiteral("/a.b.gif"));
}

// ---- Quality ----

qint64 encodedSize(const QString& folder, const QString& input, const QString& format,
                   double quality)
{
    Options options = resizeOptions(600, 600, format);
    options.quality = quality;
    options.outputFolder = folder;
    const ImageOutcome outcome = processImage(input, options);
    EXPECT_TRUE(outcome.ok()) << outcome.error.toStdString();
    return QFileInfo(outcome.output).size();
}

TEST(ImageProcessorTest, QualityAppliesToJpegAndWebp)
{
    QTemporaryDir dir;
    const QString input = makeImageFile(dir.filePath(QStringLiteral("noise.png")), 800, 600);
    const QString out = dir.filePath(QStringLiteral("out"));
    QDir().mkpath(out);
    for (const char* format : {"jpg", "webp"}) {
        const QString f = QString::fromLatin1(format);
        const qint64 low = encodedSize(out, input, f, 20);
        const qint64 high = encodedSize(out, input, f, 95);
        EXPECT_LT(low * 2, high) << format;
        // 100 and above mean the best quality alike.
        EXPECT_EQ(encodedSize(out, input, f, 100), encodedSize(out, input, f, 250)) << format;
    }
    // PNG ignores the quality.
    EXPECT_EQ(encodedSize(out, input, QStringLiteral("png"), 10),
              encodedSize(out, input, QStringLiteral("png"), 100));
}

// ---- Orientation and large images ----

TEST(ImageProcessorTest, ExifOrientationIsHonoured)
{
    QTemporaryDir dir;
    vips::VImage image = makeImage(400, 200).copy();
    image.set("orientation", 6); // stored landscape, shown portrait
    const QString input = dir.filePath(QStringLiteral("rotated.jpg"));
    writeImage(image, input);
    const ImageOutcome outcome =
        processImage(input, resizeOptions(100, 100, QStringLiteral("png")));
    ASSERT_TRUE(outcome.ok()) << outcome.error.toStdString();
    const ReadBack info = readBack(outcome.output);
    EXPECT_EQ(info.width, 50);
    EXPECT_EQ(info.height, 100);
}

TEST(ImageProcessorTest, LargeJpegBecomesTheDocumentedSize)
{
    QTemporaryDir dir;
    const QString input = makeImageFile(dir.filePath(QStringLiteral("big.jpg")), 4000, 3000);
    ImageOutcome outcome = processImage(input, resizeOptions(1000, 1000, QStringLiteral("jpg")));
    ASSERT_TRUE(outcome.ok()) << outcome.error.toStdString();
    EXPECT_EQ(readBack(outcome.output).width, 1000);
    EXPECT_EQ(readBack(outcome.output).height, 750);
    outcome = processImage(input, resizeOptions(0, 500, QStringLiteral("jpg")));
    ASSERT_TRUE(outcome.ok()) << outcome.error.toStdString();
    EXPECT_EQ(readBack(outcome.output).width, 667);
    EXPECT_EQ(readBack(outcome.output).height, 500);
}

// ---- Failures, progress, cancel ----

TEST(ImageProcessorTest, UnreadableImagesAreSkippedAndReported)
{
    QTemporaryDir dir;
    const QString first = makeImageFile(dir.filePath(QStringLiteral("first.png")), 80, 60);
    const QString garbage = dir.filePath(QStringLiteral("broken.jpg"));
    {
        QFile file(garbage);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write("this is not a picture at all");
    }
    // A JPEG cut in half: its header reads but its pixels do not.
    const QString whole = makeImageFile(dir.filePath(QStringLiteral("whole.jpg")), 800, 600);
    const QString truncated = dir.filePath(QStringLiteral("truncated.jpg"));
    {
        QFile in(whole);
        ASSERT_TRUE(in.open(QIODevice::ReadOnly));
        QFile out(truncated);
        ASSERT_TRUE(out.open(QIODevice::WriteOnly));
        out.write(in.readAll().left(in.size() / 2));
    }
    QFile::remove(whole);
    const QString last = makeImageFile(dir.filePath(QStringLiteral("last.gif")), 80, 60);

    const QString out = dir.filePath(QStringLiteral("out"));
    QDir().mkpath(out);
    Options options = resizeOptions(40, 40, QStringLiteral("png"));
    options.outputFolder = out;
    QList<int> progress;
    Callbacks callbacks;
    callbacks.finished = [&](int done, int total, const ImageOutcome&) {
        progress << done;
        EXPECT_EQ(total, 4);
    };
    const RunResult result = processImages({first, garbage, truncated, last}, options, callbacks);
    EXPECT_EQ(progress, (QList<int>{1, 2, 3, 4}));
    EXPECT_EQ(result.written,
              (QStringList{out + QStringLiteral("/first.png"), out + QStringLiteral("/last.png")}));
    EXPECT_EQ(result.failed, (QStringList{garbage, truncated}));
    EXPECT_TRUE(result.images[1].error.startsWith(QStringLiteral("Could not convert broken.jpg: ")))
        << result.images[1].error.toStdString();
    EXPECT_TRUE(
        result.images[2].error.startsWith(QStringLiteral("Could not convert truncated.jpg: ")))
        << result.images[2].error.toStdString();
    EXPECT_EQ(fileNames(out),
              (QStringList{QStringLiteral("first.png"), QStringLiteral("last.png")}))
        << "no partial or temporary files";
    EXPECT_TRUE(QFileInfo::exists(garbage)) << "a skipped original is not trashed";
}

TEST(ImageProcessorTest, UnsupportedOutputFormatRefusesTheRun)
{
    QTemporaryDir dir;
    const QString input = makeImageFile(dir.filePath(QStringLiteral("a.png")), 20, 20);
    const RunResult result = processImages({input}, resizeOptions(10, 10, QStringLiteral("bmp")));
    EXPECT_EQ(result.error, QStringLiteral("Unsupported output format: bmp"));
    EXPECT_TRUE(result.images.isEmpty());
    EXPECT_EQ(fileNames(dir.path()), QStringList{QStringLiteral("a.png")});
}

TEST(ImageProcessorTest, CancelStopsAfterTheCurrentImage)
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
        processImages(inputs, resizeOptions(32, 32, QStringLiteral("jpg")), callbacks, &cancel);
    EXPECT_TRUE(result.cancelled);
    EXPECT_EQ(started, inputs.mid(0, 2));
    EXPECT_EQ(result.written, (QStringList{dir.filePath(QStringLiteral("img1.jpg")),
                                           dir.filePath(QStringLiteral("img2.jpg"))}));
    EXPECT_FALSE(QFileInfo::exists(dir.filePath(QStringLiteral("img3.jpg"))));
}

// ---- Originals to the Trash ----

TEST(ImageProcessorTest, OriginalsGoToTheTrashUnlessKept)
{
    QTemporaryDir dir;
    const QString kept = makeImageFile(dir.filePath(QStringLiteral("kept.png")), 50, 50);
    const QString trashed = makeImageFile(dir.filePath(QStringLiteral("trash me.tiff")), 50, 50);

    Options options = resizeOptions(25, 25, QStringLiteral("webp"));
    ImageOutcome outcome = processImage(kept, options);
    ASSERT_TRUE(outcome.ok()) << outcome.error.toStdString();
    EXPECT_FALSE(outcome.trashed);
    EXPECT_TRUE(QFileInfo::exists(kept));

    options.keepOriginals = false;
    outcome = processImage(trashed, options);
    ASSERT_TRUE(outcome.ok()) << outcome.error.toStdString();
    EXPECT_TRUE(outcome.trashed) << outcome.trashError.toStdString();
    EXPECT_FALSE(QFileInfo::exists(trashed));
    EXPECT_TRUE(QFileInfo::exists(dir.filePath(QStringLiteral("trash me.webp"))));

    const QString trash = trashHome.trashFolder();
    EXPECT_EQ(readBack(trash + QStringLiteral("/files/trash me.tiff")).width, 50);
    QFile info(trash + QStringLiteral("/info/trash me.tiff.trashinfo"));
    ASSERT_TRUE(info.open(QIODevice::ReadOnly));
    const QString text = QString::fromUtf8(info.readAll());
    EXPECT_TRUE(text.startsWith(QStringLiteral("[Trash Info]\n"))) << text.toStdString();
    // The original path, percent-encoded as the Trash specification asks.
    EXPECT_TRUE(text.contains(QStringLiteral("Path=") +
                              QString::fromUtf8(QUrl::toPercentEncoding(trashed, "/"))))
        << text.toStdString();
    EXPECT_TRUE(text.contains(QStringLiteral("DeletionDate="))) << text.toStdString();
}

} // namespace
