#pragma once

#include <QByteArray>

namespace vips {
class VImage;
}

// Writes `image` to `path` as a lossy WEBP of `quality` (0-100), as libvips' saver would with
// its defaults but without holding the image whole: rows go to libwebp's YUV picture a strip
// at a time, so an image costs its YUV planes and the encoder's state, not also the decoded
// pixels and the copy libwebp makes of them. Metadata is not written; pixels described by a
// colour profile are turned into sRGB. Throws vips::VError.
void writeWebp(vips::VImage image, const QByteArray& path, int quality);
