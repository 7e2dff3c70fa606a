#include "platform/ZipWriter.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>
#include <QThread>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <deque>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <minizip/zip.h>
#include <mutex>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>
#include <zlib.h>

namespace ZipWriter {

namespace {

// Large files are cut into chunks deflated independently; each chunk is primed with the
// 32 KiB before it, so the ratio stays close to one stream's.
constexpr qint64 chunkSize = qint64(1) << 20;
constexpr qint64 dictionarySize = 32768;
constexpr uLong unixVersionMadeBy = (3 << 8) | 30;
constexpr uLong utf8NamesFlag = 1 << 11;
constexpr quint64 sizeLimit32 = 0xFFFFFFFFull;

struct Entry {
    QString path;    // the source, empty for folders
    QByteArray name; // UTF-8; folders end in "/"
    bool folder = false;
    bool stored = false;
    qint64 size = 0;
    time_t mtime = 0;
    mode_t mode = 0;
};

// One chunk of one entry, read by the writing thread and deflated by a worker.
struct Job {
    const Entry* entry = nullptr;
    bool first = true;
    bool last = true;
    QByteArray input;
    std::shared_ptr<const QByteArray> previous; // dictionary source, kept alive until done
    QByteArray output;
    uLong crc = 0;
    bool done = false;
};

class DeflatePool {
public:
    DeflatePool(int threads, const std::atomic_bool* cancelled)
        : m_cancelled(cancelled)
    {
        for (int i = 0; i < threads; ++i)
            m_threads.emplace_back([this] { run(); });
    }
    ~DeflatePool()
    {
        {
            std::lock_guard lock(m_mutex);
            m_stopping = true;
        }
        m_work.notify_all();
        for (auto& thread : m_threads)
            thread.join();
    }
    DeflatePool(const DeflatePool&) = delete;
    DeflatePool& operator=(const DeflatePool&) = delete;

    void submit(std::shared_ptr<Job> job)
    {
        {
            std::lock_guard lock(m_mutex);
            m_queue.push_back(std::move(job));
        }
        m_work.notify_one();
    }

    void waitFor(const Job& job)
    {
        std::unique_lock lock(m_mutex);
        m_done.wait(lock, [&] { return job.done; });
    }

private:
    void run()
    {
        z_stream stream{};
        const bool ready = deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, -MAX_WBITS,
                                        MAX_MEM_LEVEL - 1, Z_DEFAULT_STRATEGY) == Z_OK;
        for (;;) {
            std::shared_ptr<Job> job;
            {
                std::unique_lock lock(m_mutex);
                m_work.wait(lock, [&] { return m_stopping || !m_queue.empty(); });
                if (m_stopping)
                    break;
                job = std::move(m_queue.front());
                m_queue.pop_front();
            }
            if (ready && !(m_cancelled && *m_cancelled))
                compress(stream, *job);
            {
                std::lock_guard lock(m_mutex);
                job->done = true;
            }
            m_done.notify_all();
        }
        if (ready)
            deflateEnd(&stream);
    }

    // An empty output tells the writer that deflating failed.
    static void compress(z_stream& stream, Job& job)
    {
        const auto* in = reinterpret_cast<const Bytef*>(job.input.constData());
        job.crc = crc32(0, in, uInt(job.input.size()));
        if (job.entry->stored)
            return;
        deflateReset(&stream);
        if (job.previous && !job.previous->isEmpty()) {
            const qint64 length = std::min<qint64>(dictionarySize, job.previous->size());
            deflateSetDictionary(&stream,
                                 reinterpret_cast<const Bytef*>(job.previous->constData()) +
                                     job.previous->size() - length,
                                 uInt(length));
        }
        job.output.resize(qsizetype(deflateBound(&stream, uLong(job.input.size())) + 16));
        stream.next_in = const_cast<Bytef*>(in);
        stream.avail_in = uInt(job.input.size());
        // A sync flush ends a middle chunk on a byte boundary without the final-block bit,
        // so the chunks of one entry join into one valid stream.
        const int flush = job.last ? Z_FINISH : Z_SYNC_FLUSH;
        qsizetype written = 0;
        for (;;) {
            stream.next_out = reinterpret_cast<Bytef*>(job.output.data()) + written;
            stream.avail_out = uInt(job.output.size() - written);
            const int status = deflate(&stream, flush);
            written = job.output.size() - stream.avail_out;
            if (status == Z_STREAM_END || (flush == Z_SYNC_FLUSH && stream.avail_out > 0))
                break;
            if (status != Z_OK && status != Z_BUF_ERROR) {
                written = 0;
                break;
            }
            job.output.resize(job.output.size() * 2);
        }
        job.output.resize(written);
        job.previous.reset();
    }

    const std::atomic_bool* m_cancelled;
    std::mutex m_mutex;
    std::condition_variable m_work;
    std::condition_variable m_done;
    std::deque<std::shared_ptr<Job>> m_queue;
    bool m_stopping = false;
    std::vector<std::thread> m_threads;
};

QString errnoText(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

QString readError(const QString& path, int error)
{
    return QStringLiteral("Could not read \"%1\": %2.").arg(path, errnoText(error));
}

// Walks the sources into entries, folders before their contents, names sorted.
class Planner {
public:
    explicit Planner(const struct stat& archive)
        : m_archive(archive)
    {}

    bool addSource(const QString& source)
    {
        const QString path = QDir::cleanPath(source);
        QString name = QFileInfo(path).fileName();
        if (name.isEmpty())
            name = QStringLiteral("files");
        // Sources from different folders may share a name; the second becomes "name 2".
        const QFileInfo parts(name);
        const QString suffix = parts.completeSuffix().isEmpty() || parts.baseName().isEmpty()
                                   ? QString()
                                   : "." + parts.completeSuffix();
        const QString stem = name.left(name.size() - suffix.size());
        for (int n = 2; m_topNames.contains(name); ++n)
            name = stem + ' ' + QString::number(n) + suffix;
        m_topNames.insert(name);
        std::vector<std::pair<dev_t, ino_t>> ancestors;
        return add(path, name.toUtf8(), ancestors);
    }

    std::vector<Entry> entries;
    qint64 total = 0;
    QString error;

private:
    bool add(const QString& path, const QByteArray& name,
             std::vector<std::pair<dev_t, ino_t>>& ancestors)
    {
        struct stat info {};
        // stat, not lstat: a link is archived as what it points to.
        if (::stat(QFile::encodeName(path).constData(), &info) != 0) {
            error = readError(path, errno);
            return false;
        }
        if (info.st_dev == m_archive.st_dev && info.st_ino == m_archive.st_ino)
            return true;
        if (S_ISREG(info.st_mode)) {
            Entry entry{path, name, false, false, info.st_size, info.st_mtime, info.st_mode};
            entry.stored = entry.size == 0 || isAlreadyCompressed(QString::fromUtf8(name));
            total += entry.size;
            entries.push_back(std::move(entry));
            return true;
        }
        if (!S_ISDIR(info.st_mode))
            return true; // sockets, pipes and devices have no contents to keep
        const std::pair<dev_t, ino_t> id{info.st_dev, info.st_ino};
        if (std::find(ancestors.begin(), ancestors.end(), id) != ancestors.end())
            return true; // a link back up the tree
        entries.push_back({{}, name + '/', true, true, 0, info.st_mtime, info.st_mode});
        DIR* dir = ::opendir(QFile::encodeName(path).constData());
        if (!dir) {
            error = readError(path, errno);
            return false;
        }
        std::vector<QByteArray> children;
        errno = 0;
        while (const dirent* child = ::readdir(dir)) {
            if (std::strcmp(child->d_name, ".") != 0 && std::strcmp(child->d_name, "..") != 0)
                children.emplace_back(child->d_name);
        }
        const int listError = errno;
        ::closedir(dir);
        if (listError != 0) {
            error = readError(path, listError);
            return false;
        }
        std::sort(children.begin(), children.end());
        ancestors.push_back(id);
        for (const QByteArray& child : children) {
            if (!add(path + '/' + QFile::decodeName(child), name + '/' + child, ancestors))
                return false;
        }
        ancestors.pop_back();
        return true;
    }

    struct stat m_archive;
    QSet<QString> m_topNames;
};

uLong dosDateTime(time_t time)
{
    struct tm local {};
    localtime_r(&time, &local);
    if (local.tm_year < 80)
        return (1 << 21) | (1 << 16); // the format starts on 1 January 1980
    if (local.tm_year > 207)
        return (127u << 25) | (12 << 21) | (31 << 16) | (23 << 11) | (59 << 5) | 29;
    return (uLong(local.tm_year - 80) << 25) | (uLong(local.tm_mon + 1) << 21) |
           (uLong(local.tm_mday) << 16) | (uLong(local.tm_hour) << 11) |
           (uLong(local.tm_min) << 5) | uLong(local.tm_sec / 2);
}

// The extended timestamp field: the modification time in UTC to the second, which unzip
// prefers to the local two-second time of the header.
QByteArray timestampField(time_t time)
{
    const quint32 seconds = quint32(std::clamp<qint64>(time, 0, 0xFFFFFFFFll));
    QByteArray field("UT\x05\x00\x01", 5);
    for (int i = 0; i < 4; ++i)
        field.append(char((seconds >> (8 * i)) & 0xFF));
    return field;
}

bool isAscii(const QByteArray& text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return uchar(c) < 0x80; });
}

quint64 littleEndian(const uchar* bytes, int count)
{
    quint64 value = 0;
    for (int i = count - 1; i >= 0; --i)
        value = (value << 8) | bytes[i];
    return value;
}

// minizip marks every entry that needs Zip64 fields as made by MS-DOS, and unzip then
// ignores its Unix permissions; the central directory gets the Unix host back.
bool restoreUnixHost(const QString& archive)
{
    QFile file(archive);
    if (!file.open(QIODevice::ReadWrite) || file.size() < 22)
        return false;
    file.seek(file.size() - 22);
    const QByteArray end = file.read(22);
    const auto* e = reinterpret_cast<const uchar*>(end.constData());
    if (littleEndian(e, 4) != 0x06054b50)
        return false;
    quint64 directorySize = littleEndian(e + 12, 4);
    quint64 directoryOffset = littleEndian(e + 16, 4);
    if (directoryOffset == sizeLimit32 || directorySize == sizeLimit32 ||
        littleEndian(e + 10, 2) == 0xFFFF) {
        file.seek(file.size() - 22 - 20);
        const QByteArray locator = file.read(20);
        const auto* l = reinterpret_cast<const uchar*>(locator.constData());
        if (locator.size() != 20 || littleEndian(l, 4) != 0x07064b50)
            return false;
        file.seek(qint64(littleEndian(l + 8, 8)));
        const QByteArray end64 = file.read(56);
        const auto* r = reinterpret_cast<const uchar*>(end64.constData());
        if (end64.size() != 56 || littleEndian(r, 4) != 0x06064b50)
            return false;
        directorySize = littleEndian(r + 40, 8);
        directoryOffset = littleEndian(r + 48, 8);
    }
    file.seek(qint64(directoryOffset));
    QByteArray directory = file.read(qint64(directorySize));
    if (quint64(directory.size()) != directorySize)
        return false;
    auto* d = reinterpret_cast<uchar*>(directory.data());
    for (quint64 at = 0; at + 46 <= directorySize;) {
        if (littleEndian(d + at, 4) != 0x02014b50)
            return false;
        d[at + 5] = uchar(unixVersionMadeBy >> 8);
        at += 46 + littleEndian(d + at + 28, 2) + littleEndian(d + at + 30, 2) +
              littleEndian(d + at + 32, 2);
    }
    return file.seek(qint64(directoryOffset)) && file.write(directory) == directory.size() &&
           file.flush();
}

class Writer {
public:
    Writer(const QString& archive, const Progress& progress, const std::atomic_bool* cancelled)
        : m_archive(archive)
        , m_progress(progress)
        , m_cancelled(cancelled)
    {}

    Result run(const QStringList& sources)
    {
        Result result = write(sources);
        if (!result.ok)
            QFile::remove(m_archive);
        return result;
    }

private:
    bool isCancelled() const { return m_cancelled && *m_cancelled; }

    Result failure(const QString& error)
    {
        closeArchive();
        Result result;
        result.error = error;
        return result;
    }

    Result cancelledResult()
    {
        closeArchive();
        Result result;
        result.cancelled = true;
        result.error = QStringLiteral("Zipping was cancelled.");
        return result;
    }

    Result writeFailure(int error)
    {
        return failure(QStringLiteral("Could not write the archive \"%1\"%2.")
                           .arg(m_archive, error ? ": " + errnoText(error) : QString()));
    }

    void closeArchive()
    {
        if (m_zip) {
            if (m_entryOpen)
                zipCloseFileInZipRaw64(m_zip, 0, 0);
            zipClose(m_zip, nullptr);
            m_zip = nullptr;
        }
        m_entryOpen = false;
        if (m_file >= 0)
            ::close(m_file);
        m_file = -1;
    }

    Result write(const QStringList& sources)
    {
        QFile::remove(m_archive);
        errno = 0;
        m_zip = zipOpen64(QFile::encodeName(m_archive).constData(), APPEND_STATUS_CREATE);
        struct stat archive {};
        if (!m_zip || ::stat(QFile::encodeName(m_archive).constData(), &archive) != 0)
            return failure(QStringLiteral("Could not create the archive \"%1\": %2.")
                               .arg(m_archive, errnoText(errno ? errno : EIO)));
        Planner planner(archive);
        for (const QString& source : sources) {
            if (!planner.addSource(source))
                return failure(planner.error);
        }
        m_total = planner.total;
        if (m_progress)
            m_progress(0, m_total);

        const int threads = std::max(1, QThread::idealThreadCount());
        const size_t window = size_t(threads) * 4;
        DeflatePool pool(threads, m_cancelled);
        std::deque<std::shared_ptr<Job>> inFlight;
        size_t next = 0;
        qint64 offset = 0;
        std::shared_ptr<const QByteArray> previous;
        bool anyZip64 = false;
        for (;;) {
            while (inFlight.size() < window && next < planner.entries.size()) {
                const Entry& entry = planner.entries[next];
                auto job = std::make_shared<Job>();
                job->entry = &entry;
                job->first = offset == 0;
                if (entry.folder) {
                    job->done = true;
                    inFlight.push_back(std::move(job));
                    ++next;
                    continue;
                }
                if (job->first) {
                    m_file =
                        ::open(QFile::encodeName(entry.path).constData(), O_RDONLY | O_CLOEXEC);
                    if (m_file < 0)
                        return failure(readError(entry.path, errno));
                    previous.reset();
                }
                const qint64 length = std::min(chunkSize, entry.size - offset);
                job->input.resize(qsizetype(length));
                qint64 got = 0;
                while (got < length) {
                    const ssize_t n = ::read(m_file, job->input.data() + got, size_t(length - got));
                    if (n < 0 && errno == EINTR)
                        continue;
                    if (n < 0)
                        return failure(readError(entry.path, errno));
                    if (n == 0)
                        break; // the file shrank since it was measured
                    got += n;
                }
                job->input.resize(qsizetype(got));
                offset += length;
                job->last = offset >= entry.size || got < length;
                job->previous = previous;
                if (!entry.stored)
                    previous = std::make_shared<const QByteArray>(job->input);
                if (job->last) {
                    ::close(m_file);
                    m_file = -1;
                    offset = 0;
                    previous.reset();
                    ++next;
                }
                pool.submit(job);
                inFlight.push_back(std::move(job));
            }
            if (inFlight.empty())
                break;
            const std::shared_ptr<Job> job = std::move(inFlight.front());
            inFlight.pop_front();
            pool.waitFor(*job);
            if (isCancelled())
                return cancelledResult();
            if (!job->entry->stored && job->output.isEmpty())
                return failure(QStringLiteral("Could not compress \"%1\".").arg(job->entry->path));
            anyZip64 = anyZip64 || needsZip64(job->entry->size);
            if (const int error = writeChunk(*job))
                return writeFailure(error > 0 ? error : 0);
        }
        if (isCancelled())
            return cancelledResult();
        errno = 0;
        const int closed = zipClose(m_zip, nullptr);
        m_zip = nullptr;
        if (closed != ZIP_OK)
            return writeFailure(errno);
        if ((anyZip64 || QFileInfo(m_archive).size() >= qint64(sizeLimit32)) &&
            !restoreUnixHost(m_archive))
            return writeFailure(0);
        Result result;
        result.ok = true;
        return result;
    }

    // Returns 0, or errno (-1 when there is none) on failure.
    int writeChunk(Job& job)
    {
        const Entry& entry = *job.entry;
        // A whole entry that deflate cannot shrink is kept as it is.
        const bool stored =
            entry.stored || (job.first && job.last && job.output.size() >= job.input.size());
        const QByteArray& data = stored ? job.input : job.output;
        errno = 0;
        if (job.first) {
            zip_fileinfo info{};
            info.dosDate = dosDateTime(entry.mtime);
            info.external_fa = (uLong(entry.mode & 0xFFFF) << 16) | (entry.folder ? 0x10 : 0);
            const QByteArray extra = timestampField(entry.mtime);
            if (zipOpenNewFileInZip4_64(
                    m_zip, entry.name.constData(), &info, extra.constData(), uInt(extra.size()),
                    extra.constData(), uInt(extra.size()), nullptr, stored ? 0 : Z_DEFLATED,
                    Z_DEFAULT_COMPRESSION, 1, -MAX_WBITS, MAX_MEM_LEVEL - 1, Z_DEFAULT_STRATEGY,
                    nullptr, 0, unixVersionMadeBy, isAscii(entry.name) ? 0 : utf8NamesFlag,
                    needsZip64(entry.size)) != ZIP_OK)
                return errno ? errno : -1;
            m_entryOpen = true;
            m_crc = 0;
            m_entrySize = 0;
        }
        if (!data.isEmpty() &&
            zipWriteInFileInZip(m_zip, data.constData(), unsigned(data.size())) != ZIP_OK)
            return errno ? errno : -1;
        m_crc = crc32_combine(m_crc, job.crc, z_off_t(job.input.size()));
        m_entrySize += job.input.size();
        m_done += job.input.size();
        if (job.last) {
            m_entryOpen = false;
            if (zipCloseFileInZipRaw64(m_zip, ZPOS64_T(m_entrySize), m_crc) != ZIP_OK)
                return errno ? errno : -1;
        }
        if (m_progress && !job.input.isEmpty())
            m_progress(m_done, m_total);
        return 0;
    }

    QString m_archive;
    const Progress& m_progress;
    const std::atomic_bool* m_cancelled;
    zipFile m_zip = nullptr;
    bool m_entryOpen = false;
    int m_file = -1;
    uLong m_crc = 0;
    qint64 m_entrySize = 0;
    qint64 m_done = 0;
    qint64 m_total = 0;
};

} // namespace

bool needsZip64(qint64 size)
{
    // Deflate may grow incompressible data a little; 16 MiB of slack covers it.
    return quint64(size) + (quint64(1) << 24) >= sizeLimit32;
}

Result write(const QString& archive, const QStringList& sources, const Progress& progress,
             const std::atomic_bool* cancelled)
{
    return Writer(archive, progress, cancelled).run(sources);
}

bool isAlreadyCompressed(const QString& path)
{
    static const QSet<QString> suffixes = {
        "jpg",  "jpeg", "png",  "gif", "webp", "heic", "heif", "avif", "jxl",  "mp4",  "mov", "m4v",
        "mkv",  "webm", "avi",  "mp3", "m4a",  "aac",  "ogg",  "oga",  "opus", "flac", "zip", "gz",
        "tgz",  "bz2",  "tbz2", "xz",  "txz",  "zst",  "lz4",  "lzma", "7z",   "rar",  "jar", "apk",
        "docx", "xlsx", "pptx", "odt", "ods",  "odp",  "epub", "deb",  "rpm"};
    const qsizetype dot = path.lastIndexOf('.');
    if (dot < 0 || path.indexOf('/', dot) >= 0)
        return false;
    return suffixes.contains(path.mid(dot + 1).toLower());
}

} // namespace ZipWriter
