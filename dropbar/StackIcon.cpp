#include "dropbar/StackIcon.h"

#include "builtin/images/ImageProcessor.h"
#include "core/Log.h"
#include "core/SupportPaths.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cmath>
#include <optional>

// GLib names struct members "signals", which Qt defines as a macro.
#undef signals
#include <vips/vips8>

namespace StackIcon {

namespace {

constexpr int MaxShown = 3;

QString shippedImage(const QString& name)
{
    return QDir(SupportPaths::resourcesDirectory()).filePath(QStringLiteral("Images/") + name);
}

// Composing and PNG want 8-bit sRGB with alpha, whatever the source was (grey, CMYK, 16-bit).
vips::VImage asRgba(vips::VImage image)
{
    image = image.colourspace(VIPS_INTERPRETATION_sRGB);
    if (!image.has_alpha()) {
        image = image.bandjoin_const({255});
    }
    return image.cast(VIPS_FORMAT_UCHAR);
}

// Tiles are kept in memory: a file that fails to decode then fails here, for its own tile,
// and not later while the whole pile is written.
vips::VImage fileThumbnail(const QString& path, int box)
{
    return asRgba(vips::VImage::thumbnail(QFile::encodeName(path).constData(), box,
                                          vips::VImage::option()->set("height", box)))
        .copy_memory();
}

vips::VImage dataThumbnail(const QByteArray& data, int box)
{
    VipsBlob* blob = vips_blob_new(nullptr, data.constData(), static_cast<size_t>(data.size()));
    struct Unref {
        VipsBlob* blob;
        ~Unref() { vips_area_unref(VIPS_AREA(blob)); }
    } unref{blob};
    return asRgba(vips::VImage::thumbnail_buffer(blob, box,
                                                 vips::VImage::option()->set("height", box)))
        .copy_memory();
}

// A thin white border keeps piled photos apart.
vips::VImage framed(const vips::VImage& image, int border)
{
    return image.embed(border, border, image.width() + 2 * border, image.height() + 2 * border,
                       vips::VImage::option()
                           ->set("extend", VIPS_EXTEND_BACKGROUND)
                           ->set("background", std::vector<double>{255, 255, 255, 255}));
}

std::optional<vips::VImage> tileFor(const QString& path, const FileIconProvider& provider, int box)
{
    const QFileInfo info(path);
    QString fallback = QStringLiteral("file.png");
    if (info.exists()) {
        if (info.isFile() && ImageProcessing::isSupportedFormat(info.suffix())) {
            try {
                const int border = std::max(1, box / 40);
                return framed(fileThumbnail(path, std::max(1, box - 2 * border)), border);
            } catch (const vips::VError& error) {
                Log::debug(QStringLiteral("No thumbnail of %1: %2")
                               .arg(path, QString::fromUtf8(error.what()).trimmed()));
                vips_error_clear();
            }
        }
        const QByteArray icon = provider ? provider(path) : QByteArray();
        if (!icon.isEmpty()) {
            try {
                return dataThumbnail(icon, box);
            } catch (const vips::VError& error) {
                Log::debug(QStringLiteral("Unreadable icon for %1: %2")
                               .arg(path, QString::fromUtf8(error.what()).trimmed()));
                vips_error_clear();
            }
        }
        if (info.isDir()) {
            fallback = QStringLiteral("folder.png");
        }
    }
    try {
        return fileThumbnail(shippedImage(fallback), box);
    } catch (const vips::VError& error) {
        Log::warning(QStringLiteral("Cannot read the stack image %1: %2")
                         .arg(shippedImage(fallback), QString::fromUtf8(error.what()).trimmed()));
        vips_error_clear();
        return std::nullopt;
    }
}

} // namespace

QByteArray forFiles(const QStringList& paths, const FileIconProvider& provider, int size)
{
    if (paths.isEmpty() || size <= 0) {
        return {};
    }
    QString why;
    if (!ImageProcessing::ensureInitialised(&why)) {
        Log::warning(why);
        return {};
    }
    const int count = static_cast<int>(std::min<qsizetype>(paths.size(), MaxShown));
    // The front item sits at the bottom left, the last one reaches the top right corner.
    const double front = count == 1 ? size : size * 0.8;
    const auto boxOf = [&](int index) {
        return std::max(1, static_cast<int>(std::lround(front * (1 - 0.1 * index))));
    };
    const double step = count == 1 ? 0 : (size - boxOf(count - 1)) / double(count - 1);
    try {
        vips::VImage canvas =
            vips::VImage::black(size, size, vips::VImage::option()->set("bands", 4))
                .copy(vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
        bool any = false;
        for (int index = count - 1; index >= 0; --index) {
            const int box = boxOf(index);
            const auto tile = tileFor(paths.at(index), provider, box);
            if (!tile) {
                continue;
            }
            const int left = static_cast<int>(std::lround(index * step));
            const int top = static_cast<int>(std::lround(size - index * step)) - box;
            canvas = canvas.composite2(*tile, VIPS_BLEND_MODE_OVER,
                                       vips::VImage::option()
                                           ->set("x", left + (box - tile->width()) / 2)
                                           ->set("y", top + (box - tile->height()) / 2));
            any = true;
        }
        if (!any) {
            return {};
        }
        VipsBlob* blob = canvas.cast(VIPS_FORMAT_UCHAR).pngsave_buffer();
        size_t length = 0;
        const void* data = vips_blob_get(blob, &length);
        QByteArray png(static_cast<const char*>(data), static_cast<qsizetype>(length));
        vips_area_unref(VIPS_AREA(blob));
        return png;
    } catch (const vips::VError& error) {
        Log::warning(QStringLiteral("Could not compose a stack icon: ") +
                     QString::fromUtf8(error.what()).trimmed());
        vips_error_clear();
        return {};
    }
}

QByteArray forText()
{
    QFile file(shippedImage(QStringLiteral("text.png")));
    if (!file.open(QIODevice::ReadOnly)) {
        Log::warning(QStringLiteral("Cannot read the text stack icon %1: %2")
                         .arg(file.fileName(), file.errorString()));
        return {};
    }
    return file.readAll();
}

} // namespace StackIcon
