// The image engine's side of bench/images_bench.py, which times it against vipsthumbnail
// and ImageMagick. Two modes:
//   images_bench corpus DIR
//       writes DIR/jpg/photo-NN.jpg (40 of 4000x3000) and DIR/png/scan-NN.png (10 of
//       2000x1500) with photographic-looking content
//   images_bench run --output DIR [--width W] [--height H] [--quality Q] [--format EXT]
//                    [--convert] [--workers N] FILE...
//       processes FILE... with the engine, keeping the originals, on N workers (default:
//       one per core, as the actions run; 1 is one image at a time)
#include "builtin/images/ImageProcessor.h"

#include <QDir>
#include <QFile>
#include <QString>
#include <QStringList>

#include <cstdio>
#include <cstring>

// GLib names struct members "signals", which Qt defines as a macro.
#undef signals
#include <vips/vips8>

namespace {

// Smooth colour fields, a few soft-edged shapes and sensor-like noise: the encoder and the
// resampler see roughly what they see in a photograph, not flat colour.
vips::VImage photo(int width, int height, int seed)
{
    using vips::VImage;
    VImage xy = VImage::xyz(width, height);
    VImage x = xy[0];
    VImage y = xy[1];
    const double phase = seed * 37.0;
    VImage r = (x * (360.0 / width * 0.7) + phase).sin() * 70 + 120 + y * (60.0 / height);
    VImage g = (y * (360.0 / height * 0.9) + phase * 1.3).sin() * 60 + 110;
    VImage b = ((x + y) * (360.0 / (width + height) * 1.1) + phase * 0.7).cos() * 80 + 120;
    VImage image = r.bandjoin(g).bandjoin(b);
    image = image.cast(VIPS_FORMAT_UCHAR)
                .copy(VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB))
                .copy_memory();
    for (int i = 0; i < 12; ++i) {
        const int cx = (seed * 811 + i * 1543) % width;
        const int cy = (seed * 433 + i * 977) % height;
        const int radius = height / 20 + (i * 131 + seed * 17) % (height / 6);
        const std::vector<double> ink{double((i * 53 + seed * 29) % 256),
                                      double((i * 97 + seed * 11) % 256),
                                      double((i * 31 + seed * 71) % 256)};
        image.draw_circle(ink, cx, cy, radius, VImage::option()->set("fill", true));
    }
    image = image.gaussblur(2.0);
    VImage noise = VImage::gaussnoise(width, height, VImage::option()->set("sigma", 6.0)) - 128;
    return (image + noise)
        .cast(VIPS_FORMAT_UCHAR)
        .copy(VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
}

int makeCorpus(const QString& folder)
{
    QDir().mkpath(folder + QStringLiteral("/jpg"));
    QDir().mkpath(folder + QStringLiteral("/png"));
    for (int i = 1; i <= 40; ++i) {
        const QString path =
            QStringLiteral("%1/jpg/photo-%2.jpg").arg(folder).arg(i, 2, 10, QChar(u'0'));
        photo(4000, 3000, i)
            .jpegsave(QFile::encodeName(path).constData(), vips::VImage::option()->set("Q", 92));
    }
    for (int i = 1; i <= 10; ++i) {
        const QString path =
            QStringLiteral("%1/png/scan-%2.png").arg(folder).arg(i, 2, 10, QChar(u'0'));
        photo(2000, 1500, 100 + i).pngsave(QFile::encodeName(path).constData());
    }
    return 0;
}

int run(const QStringList& arguments)
{
    ImageProcessing::Options options;
    options.keepOriginals = true;
    QStringList files;
    int workers = 0;
    for (qsizetype i = 0; i < arguments.size(); ++i) {
        const QString& argument = arguments[i];
        const auto value = [&]() { return i + 1 < arguments.size() ? arguments[++i] : QString(); };
        if (argument == u"--output")
            options.outputFolder = value();
        else if (argument == u"--width")
            options.maxWidth = value().toDouble();
        else if (argument == u"--height")
            options.maxHeight = value().toDouble();
        else if (argument == u"--quality")
            options.quality = value().toDouble();
        else if (argument == u"--format")
            options.format = value();
        else if (argument == u"--convert")
            options.mode = ImageProcessing::Mode::Convert;
        else if (argument == u"--workers")
            workers = value().toInt();
        else
            files << argument;
    }
    const ImageProcessing::RunResult result = ImageProcessing::processImages(
        ImageProcessing::collectImages(files), options, {}, nullptr, workers);
    if (!result.error.isEmpty()) {
        std::fprintf(stderr, "%s\n", qPrintable(result.error));
        return 1;
    }
    for (const ImageProcessing::ImageOutcome& outcome : result.images) {
        if (!outcome.ok())
            std::fprintf(stderr, "%s\n", qPrintable(outcome.error));
    }
    std::printf("%lld written, %lld failed\n", static_cast<long long>(result.written.size()),
                static_cast<long long>(result.failed.size()));
    return result.failed.isEmpty() ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    QString error;
    if (!ImageProcessing::ensureInitialised(&error)) {
        std::fprintf(stderr, "%s\n", qPrintable(error));
        return 1;
    }
    QStringList arguments;
    for (int i = 2; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);
    try {
        if (argc == 3 && std::strcmp(argv[1], "corpus") == 0)
            return makeCorpus(arguments.first());
        if (argc >= 3 && std::strcmp(argv[1], "run") == 0)
            return run(arguments);
    } catch (const vips::VError& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return 1;
    }
    std::fprintf(stderr, "usage: images_bench corpus DIR | images_bench run [options] FILE...\n");
    return 2;
}
