#include "builtin/images/WebpWriter.h"

#include <QScopeGuard>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <malloc.h>
#include <string>

// GLib names struct members "signals", which Qt defines as a macro.
#undef signals
#include <vips/vips8>
#include <webp/encode.h>

namespace {

// Even, so that each strip's 2x2 chroma blocks are those of the whole image.
constexpr int StripRows = 16;

int writeToFile(const uint8_t* data, size_t size, const WebPPicture* picture)
{
    return std::fwrite(data, 1, size, static_cast<FILE*>(picture->custom_ptr)) == size;
}

std::string encoderError(WebPEncodingError code)
{
    switch (code) {
    case VP8_ENC_ERROR_OUT_OF_MEMORY:
    case VP8_ENC_ERROR_BITSTREAM_OUT_OF_MEMORY:
        return "out of memory";
    case VP8_ENC_ERROR_BAD_WRITE:
        return std::string("could not write the file: ") + std::strerror(errno);
    case VP8_ENC_ERROR_BAD_DIMENSION:
        return "the image is too large for WEBP (16383 pixels at most each way)";
    default:
        return "WEBP encoder error " + std::to_string(int(code));
    }
}

// 8-bit sRGB with three bands, or four with alpha, as libvips' saver takes it.
vips::VImage saveable(vips::VImage image)
{
    // No profile is written, so pixels described by one are turned into sRGB first.
    if (image.get_typeof(VIPS_META_ICC_NAME) != 0)
        image = image.icc_transform("srgb", vips::VImage::option()->set("embedded", true));
    if (image.bands() < 3 || image.interpretation() != VIPS_INTERPRETATION_sRGB)
        image = image.colourspace(VIPS_INTERPRETATION_sRGB);
    const int bands = image.has_alpha() ? 4 : 3;
    if (image.bands() > bands)
        image = image.extract_band(0, vips::VImage::option()->set("n", bands));
    if (image.format() != VIPS_FORMAT_UCHAR)
        image = image.cast(VIPS_FORMAT_UCHAR);
    return image;
}

} // namespace

void writeWebp(vips::VImage image, const QByteArray& path, int quality)
{
    image = saveable(std::move(image));
    const int width = image.width();
    const int height = image.height();
    const bool alpha = image.bands() == 4;

    WebPConfig config;
    if (!WebPConfigPreset(&config, WEBP_PRESET_DEFAULT, float(std::clamp(quality, 0, 100))))
        throw vips::VError("WEBP encoder version mismatch");
    config.method = 4; // libvips' default effort

    WebPPicture picture;
    WebPPicture strip;
    if (!WebPPictureInit(&picture) || !WebPPictureInit(&strip))
        throw vips::VError("WEBP encoder version mismatch");
    picture.width = width;
    picture.height = height;
    picture.use_argb = 0;
    picture.colorspace = alpha ? WEBP_YUV420A : WEBP_YUV420;
    const auto freePictures = qScopeGuard([&] {
        WebPPictureFree(&picture);
        WebPPictureFree(&strip);
    });
    if (width > WEBP_MAX_DIMENSION || height > WEBP_MAX_DIMENSION)
        throw vips::VError(encoderError(VP8_ENC_ERROR_BAD_DIMENSION));
    if (!WebPPictureAlloc(&picture))
        throw vips::VError(encoderError(VP8_ENC_ERROR_OUT_OF_MEMORY));

    {
        VipsRegion* region = vips_region_new(image.get_image());
        const auto freeRegion = qScopeGuard([&] { g_object_unref(region); });
        for (int top = 0; top < height; top += StripRows) {
            const int rows = std::min(StripRows, height - top);
            VipsRect rect{0, top, width, rows};
            if (vips_region_prepare(region, &rect) != 0)
                throw vips::VError();
            const auto* pixels = reinterpret_cast<const uint8_t*>(VIPS_REGION_ADDR(region, 0, top));
            const int stride = int(VIPS_REGION_LSKIP(region));
            strip.width = width;
            strip.height = rows;
            strip.use_argb = 0;
            const int imported = alpha ? WebPPictureImportRGBA(&strip, pixels, stride)
                                       : WebPPictureImportRGB(&strip, pixels, stride);
            if (!imported)
                throw vips::VError(encoderError(VP8_ENC_ERROR_OUT_OF_MEMORY));
            for (int row = 0; row < rows; ++row) {
                std::memcpy(picture.y + size_t(top + row) * size_t(picture.y_stride),
                            strip.y + size_t(row) * size_t(strip.y_stride), size_t(width));
                if (alpha) {
                    uint8_t* to = picture.a + size_t(top + row) * size_t(picture.a_stride);
                    // A strip without transparency comes without an alpha plane.
                    if (strip.a)
                        std::memcpy(to, strip.a + size_t(row) * size_t(strip.a_stride),
                                    size_t(width));
                    else
                        std::memset(to, 0xff, size_t(width));
                }
            }
            const size_t chromaWidth = size_t(width + 1) / 2;
            for (int row = 0; row < (rows + 1) / 2; ++row) {
                const size_t at = size_t(top / 2 + row) * size_t(picture.uv_stride);
                const size_t from = size_t(row) * size_t(strip.uv_stride);
                std::memcpy(picture.u + at, strip.u + from, chromaWidth);
                std::memcpy(picture.v + at, strip.v + from, chromaWidth);
            }
        }
    }
    // The decoder's buffers go before the encoder takes its own.
    image = vips::VImage();
    WebPPictureFree(&strip);
    // The freed decoder buffers sit in this worker's malloc arena, out of reach of the others.
    malloc_trim(0);

    FILE* file = std::fopen(path.constData(), "wb");
    if (!file)
        throw vips::VError(std::string("could not write the file: ") + std::strerror(errno));
    picture.writer = writeToFile;
    picture.custom_ptr = file;
    const bool encoded = WebPEncode(&config, &picture);
    const bool closed = std::fclose(file) == 0;
    if (!encoded)
        throw vips::VError(encoderError(picture.error_code));
    if (!closed)
        throw vips::VError(std::string("could not write the file: ") + std::strerror(errno));
}
