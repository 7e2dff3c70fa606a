#include "platform/ZipExtractor.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QSet>
#include <QStringDecoder>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <minizip/unzip.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace ZipExtractor {

namespace {

constexpr int EncryptedFlag = 0x1;
constexpr int Utf8NameFlag = 0x800;
constexpr int MadeByUnix = 3;
constexpr qint64 ChunkSize = 64 * 1024;

QString invalidArchive()
{
    return QStringLiteral("The archive is not a valid zip archive.");
}

QString quoted(const QString& name)
{
    return u'"' + name + u'"';
}

QString byteCount(qint64 bytes)
{
    if (bytes >= (qint64(1) << 30) && bytes % (qint64(1) << 30) == 0)
        return QStringLiteral("%1 GiB").arg(bytes >> 30);
    if (bytes >= (qint64(1) << 20) && bytes % (qint64(1) << 20) == 0)
        return QStringLiteral("%1 MiB").arg(bytes >> 20);
    return QStringLiteral("%1 bytes").arg(bytes);
}

struct Entry {
    QString name; // normalised, without a trailing "/"
    bool isDir = false;
    bool executable = false;
    qint64 size = 0;
    qint64 mtime = 0; // 0 when the archive gives no usable time
};

struct Zip {
    unzFile file = nullptr;
    explicit Zip(const QString& path)
        : file(unzOpen64(QFile::encodeName(path).constData()))
    {}
    ~Zip()
    {
        if (file)
            unzClose(file);
    }
    Zip(const Zip&) = delete;
    Zip& operator=(const Zip&) = delete;
};

struct Fd {
    int fd = -1;
    explicit Fd(int f = -1)
        : fd(f)
    {}
    ~Fd()
    {
        if (fd >= 0)
            ::close(fd);
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
};

QString decodeName(const QByteArray& raw, unsigned long flags)
{
    QStringDecoder utf8(QStringDecoder::Utf8);
    const QString name = utf8.decode(raw);
    // Names without the UTF-8 flag are mostly UTF-8 anyway; only fall back when they are not.
    if (!utf8.hasError() || (flags & Utf8NameFlag))
        return name;
    return QString::fromLatin1(raw);
}

// Splits an entry name into its components, or says why the name is refused.
QString normalise(QString name, QStringList* parts)
{
    name.replace(u'\\', u'/');
    if (name.startsWith(u'/') || (name.size() >= 2 && name.at(1) == u':' && name.at(0).isLetter()))
        return QStringLiteral("has an absolute path");
    for (const QString& part : name.split(u'/', Qt::SkipEmptyParts)) {
        if (part == u"..")
            return QStringLiteral("points outside the folder it is unpacked into");
        if (part != u".")
            *parts << part;
    }
    if (parts->isEmpty())
        return QStringLiteral("has no name");
    return {};
}

qint64 entryTime(const tm_unz& t)
{
    const QDateTime when(QDate(int(t.tm_year), int(t.tm_mon) + 1, int(t.tm_mday)),
                         QTime(int(t.tm_hour), int(t.tm_min), int(t.tm_sec)));
    return when.isValid() ? when.toSecsSinceEpoch() : 0;
}

// Reads the central directory and refuses the archive before anything is written.
QString checkEntries(unzFile zip, qint64 archiveSize, const Limits& limits,
                     std::vector<Entry>& entries)
{
    unz_global_info64 global{};
    if (unzGetGlobalInfo64(zip, &global) != UNZ_OK)
        return invalidArchive();
    if (global.number_entry == 0)
        return {};
    const qint64 ratioLimit =
        archiveSize > std::numeric_limits<qint64>::max() / std::max<qint64>(limits.maxRatio, 1)
            ? std::numeric_limits<qint64>::max()
            : archiveSize * limits.maxRatio;
    QSet<QString> names;
    QSet<QString> folders; // every folder named or implied by a path
    qint64 total = 0;
    int status = unzGoToFirstFile(zip);
    while (status == UNZ_OK) {
        unz_file_info64 info{};
        if (unzGetCurrentFileInfo64(zip, &info, nullptr, 0, nullptr, 0, nullptr, 0) != UNZ_OK)
            return invalidArchive();
        QByteArray raw(qsizetype(info.size_filename), '\0');
        if (unzGetCurrentFileInfo64(zip, &info, raw.data(), uLong(raw.size()), nullptr, 0, nullptr,
                                    0) != UNZ_OK)
            return invalidArchive();
        const QString shown = decodeName(raw, info.flag);
        const auto refuse = [&](const QString& why) {
            return QStringLiteral("The archive entry %1 %2.").arg(quoted(shown), why);
        };
        if (raw.contains('\0'))
            return refuse(QStringLiteral("has a name that cannot be used"));
        QStringList parts;
        if (const QString why = normalise(shown, &parts); !why.isEmpty())
            return refuse(why);
        const bool unixMode = (info.version >> 8) == MadeByUnix;
        const mode_t mode = unixMode ? mode_t(info.external_fa >> 16) : 0;
        if (unixMode && S_ISLNK(mode))
            return refuse(QStringLiteral("is a symbolic link"));
        if (unixMode && (mode & S_IFMT) && !S_ISREG(mode) && !S_ISDIR(mode))
            return refuse(QStringLiteral("is a special file"));
        if (info.flag & EncryptedFlag)
            return refuse(QStringLiteral("is encrypted"));
        if (info.compression_method != 0 && info.compression_method != Z_DEFLATED)
            return refuse(QStringLiteral("uses a compression method that is not supported"));

        Entry entry;
        entry.name = parts.join(u'/');
        entry.isDir = shown.endsWith(u'/') || shown.endsWith(u'\\') || (unixMode && S_ISDIR(mode));
        entry.executable = unixMode && (mode & 0111);
        entry.size = entry.isDir ? 0 : qint64(info.uncompressed_size);
        entry.mtime = entryTime(info.tmu_date);
        if (names.contains(entry.name))
            return refuse(QStringLiteral("is in the archive more than once"));
        if (!entry.isDir && folders.contains(entry.name))
            return refuse(QStringLiteral("is both a file and a folder"));
        QString prefix;
        for (qsizetype i = 0; i + 1 < parts.size(); ++i) {
            prefix += (i ? QStringLiteral("/") : QString()) + parts.at(i);
            if (names.contains(prefix) && !folders.contains(prefix))
                return refuse(
                    QStringLiteral("lies inside %1, which is a file").arg(quoted(prefix)));
            folders.insert(prefix);
        }
        if (entry.isDir)
            folders.insert(entry.name);
        names.insert(entry.name);

        if (info.uncompressed_size > quint64(std::numeric_limits<qint64>::max()))
            return refuse(QStringLiteral("is too large"));
        total += entry.size;
        if (total > limits.maxTotal || total < 0)
            return refuse(QStringLiteral("would unpack to more than %1 in all")
                              .arg(byteCount(limits.maxTotal)));
        if (total > ratioLimit)
            return refuse(QStringLiteral("would unpack to over %1 times the size of the archive")
                              .arg(limits.maxRatio));
        entries.push_back(std::move(entry));
        status = unzGoToNextFile(zip);
    }
    if (status != UNZ_END_OF_LIST_OF_FILE || entries.size() != global.number_entry)
        return invalidArchive();
    return {};
}

// Writes what the archive holds, refusing to step through any symbolic link under the
// destination and remembering what it created so a failure can take it back.
class Writer {
public:
    Writer(int root, const std::atomic_bool* cancelled, const Limits& limits)
        : m_root(root)
        , m_cancelled(cancelled)
        , m_limits(limits)
    {}

    bool isCancelled() const { return m_cancelled && m_cancelled->load(); }

    // Opens (creating where needed) the folder `relative` under the root for `entry`.
    int openFolder(const QString& relative, const QString& entry, QString* error)
    {
        if (relative.isEmpty())
            return ::dup(m_root);
        int current = ::dup(m_root);
        QString path;
        for (const QString& part : relative.split(u'/')) {
            path += (path.isEmpty() ? QString() : QStringLiteral("/")) + part;
            const QByteArray name = QFile::encodeName(part);
            if (::mkdirat(current, name.constData(), 0755) == 0) {
                m_created.push_back({path, true});
            } else if (errno != EEXIST) {
                *error = systemError(entry);
                ::close(current);
                return -1;
            }
            const int next = ::openat(current, name.constData(),
                                      O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            ::close(current);
            if (next < 0) {
                *error = systemError(entry);
                return -1;
            }
            current = next;
        }
        return current;
    }

    bool writeFolder(const Entry& entry, QString* error)
    {
        Fd folder(openFolder(entry.name, entry.name, error));
        if (folder.fd < 0)
            return false;
        ::fchmod(folder.fd, 0755);
        return true;
    }

    bool writeFile(unzFile zip, const Entry& entry, QString* error)
    {
        const qsizetype slash = entry.name.lastIndexOf(u'/');
        Fd folder(openFolder(slash < 0 ? QString() : entry.name.left(slash), entry.name, error));
        if (folder.fd < 0)
            return false;
        const QByteArray leaf = QFile::encodeName(entry.name.mid(slash + 1));
        const mode_t mode = entry.executable ? 0755 : 0644;
        Fd out(::openat(folder.fd, leaf.constData(),
                        O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
        if (out.fd < 0) {
            *error = systemError(entry.name);
            return false;
        }
        m_created.push_back({entry.name, false});
        ::fchmod(out.fd, mode);

        const auto damaged = [&] {
            return QStringLiteral("The archive entry %1 is damaged.").arg(quoted(entry.name));
        };
        if (unzOpenCurrentFile(zip) != UNZ_OK) {
            *error = damaged();
            return false;
        }
        std::vector<char> buffer(ChunkSize);
        qint64 written = 0;
        for (;;) {
            if (isCancelled()) {
                unzCloseCurrentFile(zip);
                return false;
            }
            const int n = unzReadCurrentFile(zip, buffer.data(), unsigned(buffer.size()));
            if (n < 0) {
                unzCloseCurrentFile(zip);
                *error = damaged();
                return false;
            }
            if (n == 0)
                break;
            written += n;
            m_total += n;
            // The sizes were checked as declared; these hold even when the declaration lied.
            if (written > entry.size || m_total > m_limits.maxTotal) {
                unzCloseCurrentFile(zip);
                *error = QStringLiteral("The archive entry %1 holds more than it declares.")
                             .arg(quoted(entry.name));
                return false;
            }
            if (!writeAll(out.fd, buffer.data(), n)) {
                unzCloseCurrentFile(zip);
                *error = systemError(entry.name);
                return false;
            }
        }
        if (unzCloseCurrentFile(zip) != UNZ_OK || written != entry.size) {
            *error = damaged();
            return false;
        }
        if (entry.mtime) {
            const timespec times[2] = {{entry.mtime, 0}, {entry.mtime, 0}};
            ::futimens(out.fd, times);
        }
        if (::close(out.fd) != 0) {
            out.fd = -1;
            *error = systemError(entry.name);
            return false;
        }
        out.fd = -1;
        return true;
    }

    // Folder times last, since writing into a folder changes its time.
    void setFolderTimes(const std::vector<Entry>& entries)
    {
        for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
            if (!it->isDir || !it->mtime)
                continue;
            const timespec times[2] = {{it->mtime, 0}, {it->mtime, 0}};
            ::utimensat(m_root, QFile::encodeName(it->name).constData(), times,
                        AT_SYMLINK_NOFOLLOW);
        }
    }

    void removeCreated()
    {
        for (auto it = m_created.rbegin(); it != m_created.rend(); ++it)
            ::unlinkat(m_root, QFile::encodeName(it->first).constData(),
                       it->second ? AT_REMOVEDIR : 0);
        m_created.clear();
    }

private:
    static bool writeAll(int fd, const char* data, qint64 size)
    {
        while (size > 0) {
            const ssize_t n = ::write(fd, data, size_t(size));
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                return false;
            data += n;
            size -= n;
        }
        return true;
    }

    static QString systemError(const QString& name)
    {
        return QStringLiteral("The archive entry %1 could not be written: %2.")
            .arg(quoted(name), QString::fromLocal8Bit(std::strerror(errno)));
    }

    int m_root;
    const std::atomic_bool* m_cancelled;
    Limits m_limits;
    qint64 m_total = 0;
    std::vector<std::pair<QString, bool>> m_created; // path, is a folder
};

} // namespace

Result extract(const QString& archive, const QString& destination,
               const std::atomic_bool* cancelled, Limits limits)
{
    Result result;
    const QFileInfo archiveInfo(archive);
    if (!archiveInfo.isFile()) {
        result.error = QStringLiteral("The archive %1 does not exist.").arg(quoted(archive));
        return result;
    }
    Fd root(::open(QFile::encodeName(destination).constData(),
                   O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (root.fd < 0) {
        result.error =
            QStringLiteral("The folder %1 to unpack into does not exist.").arg(quoted(destination));
        return result;
    }
    Zip zip(archive);
    if (!zip.file) {
        result.error = invalidArchive();
        return result;
    }
    std::vector<Entry> entries;
    result.error = checkEntries(zip.file, archiveInfo.size(), limits, entries);
    if (!result.error.isEmpty())
        return result;

    Writer writer(root.fd, cancelled, limits);
    int status = entries.empty() ? UNZ_END_OF_LIST_OF_FILE : unzGoToFirstFile(zip.file);
    for (const Entry& entry : entries) {
        if (writer.isCancelled())
            break;
        if (status != UNZ_OK) {
            result.error = invalidArchive();
            break;
        }
        const bool written = entry.isDir ? writer.writeFolder(entry, &result.error)
                                         : writer.writeFile(zip.file, entry, &result.error);
        if (!written)
            break;
        result.entries << (entry.isDir ? entry.name + u'/' : entry.name);
        status = unzGoToNextFile(zip.file);
    }
    if (writer.isCancelled() && result.error.isEmpty()) {
        result.cancelled = true;
        result.error = QStringLiteral("Unpacking the archive was cancelled.");
    }
    if (!result.error.isEmpty()) {
        writer.removeCreated();
        result.entries.clear();
        return result;
    }
    writer.setFolderTimes(entries);
    result.ok = true;
    return result;
}

} // namespace ZipExtractor
