#include "builtin/images/ImageProcessor.h"

#include "platform/Trash.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <fcntl.h>
#include <mutex>
#include <unistd.h>

// GLib names struct members "signals", which Qt defines as a macro.
#undef signals
#include <vips/vips8>

namespace ImageProcessing {

namespace {

QString trimmedVipsError(const vips::VError& error)
{
    QString text = QString::fromUtf8(error.what()).trimmed();
    // libvips prefixes each line with the operation; the first line is the useful one.
    const qsizetype newline = text.indexOf(u'\n');
    if (newline >= 0)
        text.truncate(newline);
    return text;
}

bool variableIsTrue(const QMap<QString, QString>& variables, const QString& key)
{
    const QString value = variables.value(key).trimmed().toLower();
    return !(value.isEmpty() || value == u"no" || value == u"false" || value == u"off" ||
             value == u"0");
}

double variableNumber(const QMap<QString, QString>& variables, const QString& key, double fallback)
{
    bool ok = false;
    const double value = variables.value(key).trimmed().toDouble(&ok);
    return ok && std::isfinite(value) ? value : fallback;
}

QString normalisedExtension(QString extension)
{
    extension = extension.trimmed();
    if (extension.startsWith(u'.'))
        extension.remove(0, 1);
    return extension;
}

long roundHalfAway(double value)
{
    // std::lround rounds halves away from zero, as the size rules ask.
    return std::max(1L, std::lround(value));
}

// The pixel size as the image is shown, after its EXIF orientation.
QSize orientedSize(const QString& path)
{
    vips::VImage header =
        vips::VImage::new_from_file(QFile::encodeName(path).constData(),
                                    vips::VImage::option()->set("access", VIPS_ACCESS_SEQUENTIAL));
    QSize size(header.width(), header.height());
    if (vips_image_get_orientation_swap(header.get_image()))
        size.transpose();
    return size;
}

// A private file beside the final one, so the final name only appears once the image is
// complete and an existing file is never replaced.
QString reserveTemporaryFile(const QString& folder, const QString& extension)
{
    static std::atomic<unsigned> counter{0};
    for (int attempt = 0; attempt < 100; ++attempt) {
        const QString path = QDir(folder).filePath(QStringLiteral(".skelvo-%1-%2.%3")
                                                       .arg(::getpid())
                                                       .arg(counter.fetch_add(1))
                                                       .arg(extension));
        const int fd = ::open(QFile::encodeName(path).constData(),
                              O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (fd >= 0) {
            ::close(fd);
            return path;
        }
        if (errno != EEXIST)
            return {};
    }
    return {};
}

// Moves `from` to `to` only when `to` does not exist. Returns 0 or an errno value.
int renameNoReplace(const QString& from, const QString& to)
{
    const QByteArray source = QFile::encodeName(from);
    const QByteArray target = QFile::encodeName(to);
    if (::renameat2(AT_FDCWD, source.constData(), AT_FDCWD, target.constData(), RENAME_NOREPLACE) ==
        0)
        return 0;
    if (errno != EINVAL && errno != ENOSYS && errno != ENOTSUP)
        return errno;
    // File systems without RENAME_NOREPLACE: a hard link fails on an existing name too.
    if (::link(source.constData(), target.constData()) == 0) {
        ::unlink(source.constData());
        return 0;
    }
    if (errno == EEXIST)
        return EEXIST;
    // Neither is available (some FUSE and FAT mounts): check, then rename.
    if (QFileInfo::exists(to))
        return EEXIST;
    return ::rename(source.constData(), target.constData()) == 0 ? 0 : errno;
}

void save(vips::VImage image, const QString& path, const QString& extension, double quality)
{
    const QString type = extension.toLower();
    const QByteArray file = QFile::encodeName(path);
    // Compression factor quality / 100, capped at 1.0.
    const int q = static_cast<int>(std::lround(std::clamp(quality, 0.0, 100.0)));
    if (type == u"jpg" || type == u"jpeg") {
        if (image.has_alpha())
            image = image.flatten(vips::VImage::option()->set("background", 255.0));
        image.jpegsave(file.constData(), vips::VImage::option()->set("Q", std::max(1, q)));
    } else if (type == u"webp") {
        image.webpsave(file.constData(), vips::VImage::option()->set("Q", q));
    } else if (type == u"png") {
        image.pngsave(file.constData());
    } else if (type == u"tif" || type == u"tiff") {
        image.tiffsave(file.constData());
    } else if (type == u"gif") {
        image.gifsave(file.constData());
    } else if (type == u"heic" || type == u"heif") {
        image.heifsave(file.constData(), vips::VImage::option()->set(
                                             "compression", VIPS_FOREIGN_HEIF_COMPRESSION_HEVC));
    } else {
        throw vips::VError("unsupported output format");
    }
}

} // namespace

bool ensureInitialised(QString* error)
{
    static std::once_flag once;
    static bool ok = false;
    static QString failure;
    std::call_once(once, [] {
        if (VIPS_INIT("skelvo") != 0) {
            failure = QString::fromUtf8(vips_error_buffer()).trimmed();
            vips_error_clear();
            return;
        }
        // Each run reads its files once; caching operations would only hold open files
        // (of originals that go to the Trash) and memory in a long-running application.
        vips_cache_set_max(0);
        ok = true;
    });
    if (!ok && error)
        *error = QStringLiteral("Could not start the image library: ") + failure;
    return ok;
}

Options optionsFromVariables(const QMap<QString, QString>& variables, Mode mode)
{
    Options options;
    options.mode = mode;
    options.maxWidth = variableNumber(variables, QStringLiteral("output_width"), 0);
    options.maxHeight = variableNumber(variables, QStringLiteral("output_height"), 0);
    options.quality = variableNumber(variables, QStringLiteral("output_quality"), 100);
    options.format = normalisedExtension(variables.value(QStringLiteral("output_format")));
    options.keepOriginals = variableIsTrue(variables, QStringLiteral("keep_originals"));
    options.convertOnly =
        mode == Mode::Convert || variableIsTrue(variables, QStringLiteral("convert_only"));
    return options;
}

QStringList allowedImageFileExtensions()
{
    return {QStringLiteral("png"),  QStringLiteral("jpg"),  QStringLiteral("jpeg"),
            QStringLiteral("webp"), QStringLiteral("tif"),  QStringLiteral("tiff"),
            QStringLiteral("gif"),  QStringLiteral("heic"), QStringLiteral("heif")};
}

bool isSupportedFormat(const QString& extension)
{
    return allowedImageFileExtensions().contains(normalisedExtension(extension).toLower());
}

QStringList collectImages(const QStringList& droppedPaths)
{
    const QStringList allowed = allowedImageFileExtensions();
    const auto isAllowed = [&allowed](const QFileInfo& info) {
        return allowed.contains(info.suffix().toLower());
    };
    QStringList images;
    for (const QString& path : droppedPaths) {
        const QFileInfo info(path);
        if (info.isDir()) {
            const QFileInfoList entries =
                QDir(path).entryInfoList(QDir::Files, QDir::Name | QDir::IgnoreCase);
            for (const QFileInfo& entry : entries) {
                if (isAllowed(entry))
                    images << entry.absoluteFilePath();
            }
        } else if (isAllowed(info)) {
            images << info.absoluteFilePath();
        }
    }
    return images;
}

QSize targetSize(QSize source, double maxWidth, double maxHeight, bool keepSize)
{
    const double w = source.width();
    const double h = source.height();
    const bool hasWidth = maxWidth > 0;
    const bool hasHeight = maxHeight > 0;
    if (keepSize || w <= 0 || h <= 0 || (!hasWidth && !hasHeight))
        return source;
    if (hasWidth && hasHeight) {
        const double scale = std::min(maxWidth / w, maxHeight / h);
        return QSize(int(roundHalfAway(scale * w)), int(roundHalfAway(scale * h)));
    }
    if (hasHeight)
        return QSize(int(roundHalfAway(maxHeight * w / h)), int(roundHalfAway(maxHeight)));
    return QSize(int(roundHalfAway(maxWidth)), int(roundHalfAway(maxWidth * h / w)));
}

QString outputPathFor(const QString& inputPath, const QString& outputFolder,
                      const QString& extension, Mode mode)
{
    const QFileInfo input(inputPath);
    const QDir folder(outputFolder.isEmpty() ? input.absolutePath() : outputFolder);
    const QString base = input.completeBaseName();
    const QString suffix =
        mode == Mode::Resize ? QStringLiteral("-resized") : QStringLiteral("-converted");
    QString candidate = folder.filePath(base + u'.' + extension);
    if (!QFileInfo::exists(candidate) && !QFileInfo(candidate).isSymLink())
        return candidate;
    for (int counter = 1;; ++counter) {
        const QString tail = counter == 1 ? QString() : QStringLiteral("-%1").arg(counter);
        candidate = folder.filePath(base + suffix + tail + u'.' + extension);
        if (!QFileInfo::exists(candidate) && !QFileInfo(candidate).isSymLink())
            return candidate;
    }
}

ImageOutcome processImage(const QString& inputPath, const Options& options)
{
    ImageOutcome outcome;
    outcome.input = inputPath;
    const QString name = QFileInfo(inputPath).fileName();
    QString initError;
    if (!ensureInitialised(&initError)) {
        outcome.error = initError;
        return outcome;
    }
    const QString extension =
        options.format.isEmpty() ? QFileInfo(inputPath).suffix() : options.format;
    if (!isSupportedFormat(extension)) {
        outcome.error = QStringLiteral("Unsupported output format: ") + extension;
        return outcome;
    }
    const QString folder =
        options.outputFolder.isEmpty() ? QFileInfo(inputPath).absolutePath() : options.outputFolder;

    QString temporary;
    try {
        const QSize source = orientedSize(inputPath);
        const QSize target = targetSize(source, options.maxWidth, options.maxHeight,
                                        options.convertOnly || options.mode == Mode::Convert);
        // thumbnail() shrinks while decoding where the format allows (JPEG by a power of
        // two, HEIC and WEBP by their own means) and turns the image upright.
        vips::VImage image =
            vips::VImage::thumbnail(QFile::encodeName(inputPath).constData(), target.width(),
                                    vips::VImage::option()
                                        ->set("height", target.height())
                                        ->set("size", VIPS_SIZE_FORCE)
                                        ->set("fail_on", VIPS_FAIL_ON_ERROR));
        temporary = reserveTemporaryFile(folder, extension);
        if (temporary.isEmpty()) {
            outcome.error = QStringLiteral("Could not write to %1: %2")
                                .arg(QDir::toNativeSeparators(folder),
                                     QString::fromLocal8Bit(std::strerror(errno)));
            return outcome;
        }
        save(image, temporary, extension, options.quality);
        outcome.size = QSize(image.width(), image.height());
    } catch (const vips::VError& error) {
        if (!temporary.isEmpty())
            QFile::remove(temporary);
        outcome.error =
            QStringLiteral("Could not convert %1: %2").arg(name, trimmedVipsError(error));
        vips_error_clear();
        return outcome;
    }

    // Another writer may take a name between choosing and renaming; then take the next.
    for (int attempt = 0; attempt < 1000; ++attempt) {
        const QString output = outputPathFor(inputPath, folder, extension, options.mode);
        const int result = renameNoReplace(temporary, output);
        if (result == 0) {
            outcome.output = output;
            break;
        }
        if (result != EEXIST) {
            outcome.error = QStringLiteral("Could not write %1: %2")
                                .arg(QDir::toNativeSeparators(output),
                                     QString::fromLocal8Bit(std::strerror(result)));
            break;
        }
    }
    if (outcome.output.isEmpty()) {
        QFile::remove(temporary);
        if (outcome.error.isEmpty())
            outcome.error = QStringLiteral("Could not find a free name for ") + name;
        return outcome;
    }

    if (!options.keepOriginals)
        outcome.trashed = Trash::moveToTrash(inputPath, &outcome.trashError);
    return outcome;
}

RunResult processImages(const QStringList& inputPaths, const Options& options,
                        const Callbacks& callbacks, const std::atomic<bool>* cancel)
{
    RunResult result;
    if (!options.format.isEmpty() && !isSupportedFormat(options.format)) {
        result.error = QStringLiteral("Unsupported output format: ") + options.format;
        return result;
    }
    if (!ensureInitialised(&result.error))
        return result;
    const int total = int(inputPaths.size());
    for (int index = 0; index < total; ++index) {
        if (cancel && cancel->load()) {
            result.cancelled = true;
            break;
        }
        if (callbacks.started)
            callbacks.started(index, total, inputPaths.at(index));
        ImageOutcome outcome = processImage(inputPaths.at(index), options);
        if (outcome.ok())
            result.written << outcome.output;
        else
            result.failed << outcome.input;
        result.images << outcome;
        if (callbacks.finished)
            callbacks.finished(index + 1, total, result.images.constLast());
    }
    return result;
}

} // namespace ImageProcessing
