#include "builtin/images/ImageProcessor.h"

#include "builtin/images/WebpWriter.h"
#include "platform/Trash.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QThread>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <fcntl.h>
#include <malloc.h>
#include <memory>
#include <mutex>
#include <optional>
#include <unistd.h>
#include <vector>

// GLib names struct members "signals", which Qt defines as a macro.
#undef signals
#include <vips/vips8>

namespace ImageProcessing {

namespace {

// libvips keeps one error buffer for all threads, so images failing side by side can see
// each other's lines: the line naming this file wins, else the first (each line starts
// with the operation; the first is the useful one).
QString takeVipsError(const vips::VError& error, const QString& path)
{
    static std::mutex mutex;
    const std::lock_guard lock(mutex);
    const QStringList lines = QString::fromUtf8(error.what()).split(u'\n', Qt::SkipEmptyParts);
    vips_error_clear();
    const QString name = QFileInfo(path).fileName();
    for (const QString& line : lines) {
        if (line.contains(name))
            return line.trimmed();
    }
    return lines.isEmpty() ? QStringLiteral("the image is damaged or unreadable")
                           : lines.first().trimmed();
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
        writeWebp(std::move(image), file, q);
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
        // Whole-image buffers (encoders, PNG and TIFF loaders) go back to the system when
        // freed. Left alone, glibc raises its mmap threshold after the first one and keeps
        // the later ones in its heaps, so the memory of a long drop creeps up.
        mallopt(M_MMAP_THRESHOLD, 4 * 1024 * 1024);
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

namespace {

// An image encoded under its private name in the output folder, waiting to be named.
struct Rendered {
    QString temporary; // empty when the image could not be made
    QString folder;
    QString extension;
    QSize size;
    QString error;
};

// The heavy part of one image, safe to run on several threads at once: decoding (shrunk
// while loading), resizing and encoding into a temporary file.
Rendered render(const QString& inputPath, const Options& options)
{
    Rendered rendered;
    QString initError;
    if (!ensureInitialised(&initError)) {
        rendered.error = initError;
        return rendered;
    }
    rendered.extension = options.format.isEmpty() ? QFileInfo(inputPath).suffix() : options.format;
    if (!isSupportedFormat(rendered.extension)) {
        rendered.error = QStringLiteral("Unsupported output format: ") + rendered.extension;
        return rendered;
    }
    rendered.folder =
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
        temporary = reserveTemporaryFile(rendered.folder, rendered.extension);
        if (temporary.isEmpty()) {
            rendered.error = QStringLiteral("Could not write to %1: %2")
                                 .arg(QDir::toNativeSeparators(rendered.folder),
                                      QString::fromLocal8Bit(std::strerror(errno)));
            return rendered;
        }
        rendered.size = QSize(image.width(), image.height());
        // Handed over, so that the decoder's buffers can go before the encoder starts.
        save(std::move(image), temporary, rendered.extension, options.quality);
        rendered.temporary = temporary;
    } catch (const vips::VError& error) {
        if (!temporary.isEmpty())
            QFile::remove(temporary);
        rendered.error = QStringLiteral("Could not convert %1: %2")
                             .arg(QFileInfo(inputPath).fileName(), takeVipsError(error, inputPath));
    }
    return rendered;
}

// Gives a rendered image its output name and trashes the original. Names are taken one
// image after the other, so the first of two images claiming a name gets it.
ImageOutcome place(const QString& inputPath, const Options& options, const Rendered& rendered)
{
    ImageOutcome outcome;
    outcome.input = inputPath;
    outcome.error = rendered.error;
    if (rendered.temporary.isEmpty())
        return outcome;
    outcome.size = rendered.size;

    // Another writer may take a name between choosing and renaming; then take the next.
    for (int attempt = 0; attempt < 1000; ++attempt) {
        const QString output =
            outputPathFor(inputPath, rendered.folder, rendered.extension, options.mode);
        const int result = renameNoReplace(rendered.temporary, output);
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
        QFile::remove(rendered.temporary);
        if (outcome.error.isEmpty())
            outcome.error =
                QStringLiteral("Could not find a free name for ") + QFileInfo(inputPath).fileName();
        return outcome;
    }

    if (!options.keepOriginals)
        outcome.trashed = Trash::moveToTrash(inputPath, &outcome.trashError);
    return outcome;
}

// libvips runs each pipeline on threads of its own; while the pool works on several images
// side by side, those are cut to the pool's share of the cores. Overlapping runs share one
// setting, and the last to end puts back what was there before.
class VipsThreadShare {
public:
    explicit VipsThreadShare(int workers)
        : m_active(workers > 1)
    {
        if (!m_active)
            return;
        const std::lock_guard lock(mutex());
        if (users()++ == 0)
            saved() = vips_concurrency_get();
        vips_concurrency_set(std::max(1, QThread::idealThreadCount() / workers));
    }
    ~VipsThreadShare()
    {
        if (!m_active)
            return;
        const std::lock_guard lock(mutex());
        if (--users() == 0)
            vips_concurrency_set(saved());
    }
    VipsThreadShare(const VipsThreadShare&) = delete;
    VipsThreadShare& operator=(const VipsThreadShare&) = delete;

private:
    static std::mutex& mutex()
    {
        static std::mutex instance;
        return instance;
    }
    static int& users()
    {
        static int count = 0;
        return count;
    }
    static int& saved()
    {
        static int concurrency = 0;
        return concurrency;
    }
    bool m_active;
};

} // namespace

ImageOutcome processImage(const QString& inputPath, const Options& options)
{
    return place(inputPath, options, render(inputPath, options));
}

RunResult processImages(const QStringList& inputPaths, const Options& options,
                        const Callbacks& callbacks, const std::atomic<bool>* cancel, int workers)
{
    RunResult result;
    if (!options.format.isEmpty() && !isSupportedFormat(options.format)) {
        result.error = QStringLiteral("Unsupported output format: ") + options.format;
        return result;
    }
    if (!ensureInitialised(&result.error))
        return result;
    const int total = int(inputPaths.size());
    if (total == 0)
        return result;
    const int poolSize =
        std::clamp(workers > 0 ? workers : QThread::idealThreadCount(), 1, std::min(total, 64));
    const VipsThreadShare share(poolSize);

    std::mutex mutex;
    std::condition_variable workWaiting;
    std::condition_variable workDone;
    std::deque<int> queue;
    std::vector<std::optional<Rendered>> rendered(static_cast<std::size_t>(total));
    int busy = 0; // handed out and not yet rendered
    bool closing = false;

    std::vector<std::unique_ptr<QThread>> threads;
    for (int i = 0; i < poolSize; ++i) {
        threads.emplace_back(QThread::create([&] {
            for (;;) {
                int index = 0;
                {
                    std::unique_lock lock(mutex);
                    workWaiting.wait(lock, [&] { return closing || !queue.empty(); });
                    if (queue.empty())
                        return;
                    index = queue.front();
                    queue.pop_front();
                }
                Rendered image = render(inputPaths.at(index), options);
                {
                    const std::lock_guard lock(mutex);
                    rendered[static_cast<std::size_t>(index)] = std::move(image);
                    --busy;
                }
                workDone.notify_one();
            }
        }));
        threads.back()->setObjectName(QStringLiteral("resize-images-%1").arg(i + 1));
        threads.back()->start();
    }

    int next = 0;   // the next image to hand out
    int placed = 0; // images named and reported
    const auto cancelled = [cancel] { return cancel && cancel->load(); };
    // With originals going to the Trash, an image dropped twice waits for its first copy, so
    // it finds the file gone as it would one image after the other.
    const auto waitsForEarlierCopy = [&](int index) {
        if (options.keepOriginals)
            return false;
        for (int i = placed; i < index; ++i) {
            if (inputPaths.at(i) == inputPaths.at(index))
                return true;
        }
        return false;
    };
    const auto mayHandOut = [&] {
        return next < total && busy < poolSize && !cancelled() && !waitsForEarlierCopy(next);
    };
    for (;;) {
        for (;;) {
            {
                const std::lock_guard lock(mutex);
                if (!mayHandOut())
                    break;
            }
            if (callbacks.started)
                callbacks.started(next, total, inputPaths.at(next));
            {
                const std::lock_guard lock(mutex);
                queue.push_back(next);
                ++busy;
            }
            workWaiting.notify_one();
            ++next;
        }
        if (placed == next)
            break; // all done, or cancelled and nothing left in progress
        std::optional<Rendered> ready;
        {
            std::unique_lock lock(mutex);
            workDone.wait(lock, [&] {
                return rendered[static_cast<std::size_t>(placed)].has_value() || mayHandOut();
            });
            ready.swap(rendered[static_cast<std::size_t>(placed)]);
        }
        if (!ready)
            continue;
        result.images << place(inputPaths.at(placed), options, *ready);
        const ImageOutcome& outcome = result.images.constLast();
        if (outcome.ok())
            result.written << outcome.output;
        else
            result.failed << outcome.input;
        ++placed;
        if (callbacks.finished)
            callbacks.finished(placed, total, outcome);
    }
    result.cancelled = next < total;

    {
        const std::lock_guard lock(mutex);
        closing = true;
    }
    workWaiting.notify_all();
    for (const std::unique_ptr<QThread>& thread : threads)
        thread->wait();
    // Each worker allocated from a malloc arena of its own; the application lives on after
    // the drop, so what they freed goes back to the system now.
    malloc_trim(0);
    return result;
}

} // namespace ImageProcessing
