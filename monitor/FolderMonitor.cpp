#include "monitor/FolderMonitor.h"

#include "core/Log.h"
#include "platform/FileSystemInfo.h"
#include "platform/FolderEvents.h"

#include <QFile>
#include <QHash>
#include <QMutex>
#include <QPair>
#include <QSocketNotifier>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

QString systemError(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

FileIdentity identityOf(const struct stat& info)
{
    return FileIdentity{static_cast<quint64>(info.st_dev), static_cast<quint64>(info.st_ino)};
}

// One incarnation of a file: ext4 hands a freed inode number to the next new file at once,
// so the birth time tells a new file from a renamed one where the file system records it.
struct Named {
    FileIdentity identity;
    qint64 bornNs = 0; // 0 where unknown
    bool operator==(const Named&) const = default;
};

// What one look at a name found: a file's state, or nothing (gone, or a folder).
struct Look {
    QByteArray name;
    std::optional<FileState> state;
    qint64 bornNs = 0;
    Named named() const { return Named{state->identity, bornNs}; }
};

qint64 nanoseconds(const statx_timestamp& time)
{
    return qint64(time.tv_sec) * 1000000000 + time.tv_nsec;
}

Look lookAt(int folder, const QByteArray& name)
{
    struct statx info {};
    if (::statx(folder, name.constData(), AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS | STATX_BTIME,
                &info) != 0 ||
        S_ISDIR(info.stx_mode)) {
        return Look{name, std::nullopt};
    }
    const FileIdentity identity{
        static_cast<quint64>(makedev(info.stx_dev_major, info.stx_dev_minor)),
        static_cast<quint64>(info.stx_ino)};
    return Look{name,
                FileState{identity, static_cast<qint64>(info.stx_size), nanoseconds(info.stx_mtime),
                          nanoseconds(info.stx_ctime)},
                (info.stx_mask & STATX_BTIME) ? nanoseconds(info.stx_btime) : 0};
}

bool isHidden(const QByteArray& name)
{
    return name.startsWith('.');
}

} // namespace

class FolderMonitor::Worker : public QObject {
public:
    Worker(FolderMonitor* owner, QString folder, const Options& options)
        : m_owner(owner)
        , m_folder(std::move(folder))
        , m_encodedFolder(QFile::encodeName(m_folder))
        , m_options(options)
    {}

    // On the starting thread, before the worker thread runs.
    bool open(QString* error)
    {
        struct stat info {};
        if (::stat(m_encodedFolder.constData(), &info) != 0) {
            return fail(systemError(errno), error);
        }
        if (!S_ISDIR(info.st_mode)) {
            return fail(systemError(ENOTDIR), error);
        }
        m_folderIdentity = identityOf(info);
        m_polling = m_options.forcePolling || FileSystemInfo::isOnNetworkFileSystem(m_folder);
        // The watch comes before the listing so that nothing arriving in between is missed.
        if (!m_polling) {
            QString reason;
            if (!m_events.open(m_folder, &reason)) {
                Log::warning(QStringLiteral("Folder Monitor: cannot watch %1 (%2); listing it "
                                            "every check instead")
                                 .arg(m_folder, reason));
                m_polling = true;
            }
        }
        if (m_polling) {
            // Held open, the folder's inode number cannot go to a folder that replaces it.
            m_folderFd = ::open(m_encodedFolder.constData(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        }
        std::optional<QList<Look>> listing = list(error);
        if (!listing) {
            closeFiles();
            return false;
        }
        const Clock::time_point now = Clock::now();
        QSet<FileIdentity> known;
        for (const Look& look : *listing) {
            const FileState& state = *look.state;
            m_names.insert(look.name, look.named());
            if (m_options.knownBefore && !m_options.knownBefore->contains(state.identity)) {
                if (!isHidden(look.name)) {
                    m_pending.insert(state.identity, Pending{look.name, state, now});
                }
            } else {
                known.insert(state.identity);
            }
        }
        QMutexLocker lock(&m_knownLock);
        m_known = std::move(known);
        m_running = true;
        return true;
    }

    // On the worker thread.
    void begin()
    {
        m_timer = new QTimer(this);
        m_timer->setTimerType(Qt::PreciseTimer);
        m_timer->setSingleShot(true);
        connect(m_timer, &QTimer::timeout, this, [this] { tick(); });
        if (!m_polling) {
            m_notifier = new QSocketNotifier(m_events.fd(), QSocketNotifier::Read, this);
            connect(m_notifier, &QSocketNotifier::activated, this, [this] {
                readEvents();
                schedule();
            });
        }
        schedule();
    }

    // On the worker thread: nothing fires any more.
    void shutdown()
    {
        m_running = false;
        delete m_notifier;
        m_notifier = nullptr;
        delete m_timer;
        m_timer = nullptr;
    }

    void closeFiles()
    {
        m_events.close();
        if (m_folderFd >= 0) {
            ::close(m_folderFd);
            m_folderFd = -1;
        }
    }
    bool isRunning() const { return m_running; }
    bool isPolling() const { return m_polling; }
    QSet<FileIdentity> known() const
    {
        QMutexLocker lock(&m_knownLock);
        return m_known;
    }

private:
    struct Pending {
        QByteArray name;
        FileState state;
        Clock::time_point since; // when this state was first seen
    };

    static bool fail(const QString& reason, QString* error)
    {
        if (error) {
            *error = reason;
        }
        return false;
    }

    // The folder's files (subfolders left out); none when it cannot be listed.
    std::optional<QList<Look>> list(QString* error = nullptr) const
    {
        DIR* dir = ::opendir(m_encodedFolder.constData());
        if (!dir) {
            fail(systemError(errno), error);
            return std::nullopt;
        }
        QList<Look> files;
        while (const dirent* entry = ::readdir(dir)) {
            if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0 ||
                entry->d_type == DT_DIR) {
                continue;
            }
            Look found = lookAt(::dirfd(dir), QByteArray(entry->d_name));
            if (found.state) {
                files << found;
            }
        }
        ::closedir(dir);
        return files;
    }

    Look look(const QByteArray& name) const
    {
        Look found = lookAt(AT_FDCWD, m_encodedFolder + '/' + name);
        found.name = name;
        return found;
    }

    void readEvents()
    {
        FolderEvents::Batch batch = m_events.read();
        if (batch.folderGone) {
            gone();
            return;
        }
        if (batch.overflowed) {
            rescan();
            return;
        }
        QList<Look> looks;
        QSet<QByteArray> names;
        for (const FolderEvents::Event& event : batch.events) {
            if (!names.contains(event.name)) {
                names.insert(event.name);
                looks << look(event.name);
            }
        }
        apply(looks);
    }

    // Reconciles the whole folder: new identities become pending, vanished ones are forgotten.
    void rescan()
    {
        std::optional<QList<Look>> listing = list();
        if (!listing) {
            gone();
            return;
        }
        QSet<QByteArray> listed;
        for (const Look& look : *listing) {
            listed.insert(look.name);
        }
        for (auto it = m_names.cbegin(); it != m_names.cend(); ++it) {
            if (!listed.contains(it.key())) {
                *listing << Look{it.key(), std::nullopt};
            }
        }
        apply(*listing);
    }

    // Takes in what the names hold now. A file that leaves one name and shows up under another
    // in the same looks was renamed and keeps what it was; the names that lost their file go
    // first, so that a new file reusing a gone one's inode number is not taken for it.
    void apply(const QList<Look>& looks)
    {
        QSet<QPair<quint64, qint64>> seen; // inode and birth of every file looked at
        for (const Look& look : looks) {
            if (look.state) {
                seen.insert({look.state->identity.inode, look.bornNs});
            }
        }
        for (const Look& look : looks) {
            const auto named = m_names.constFind(look.name);
            if (named == m_names.cend() || (look.state && *named == look.named())) {
                continue;
            }
            if (!seen.contains({named->identity.inode, named->bornNs})) {
                forget(named->identity);
            }
            m_names.erase(named);
        }
        const Clock::time_point now = Clock::now();
        for (const Look& look : looks) {
            if (!look.state) {
                continue;
            }
            const FileState& state = *look.state;
            m_names.insert(look.name, look.named());
            if (m_known.contains(state.identity)) {
                continue;
            }
            if (isHidden(look.name)) {
                m_pending.remove(state.identity);
                continue;
            }
            auto pending = m_pending.find(state.identity);
            if (pending == m_pending.end()) {
                m_pending.insert(state.identity, Pending{look.name, state, now});
                continue;
            }
            pending->name = look.name;
            if (pending->state != state) {
                pending->state = state;
                pending->since = now;
            }
        }
    }

    // Deleted or moved out: a new file that gets the same inode number later is an arrival.
    void forget(const FileIdentity& identity)
    {
        m_pending.remove(identity);
        if (m_known.contains(identity)) {
            QMutexLocker lock(&m_knownLock);
            m_known.remove(identity);
        }
    }

    bool folderReplaced() const
    {
        struct stat info {};
        struct stat held {};
        return ::stat(m_encodedFolder.constData(), &info) != 0 || !S_ISDIR(info.st_mode) ||
               identityOf(info) != m_folderIdentity ||
               (m_folderFd >= 0 && (::fstat(m_folderFd, &held) != 0 || held.st_nlink == 0));
    }

    void tick()
    {
        if (m_polling) {
            if (folderReplaced()) {
                gone();
                return;
            }
            rescan();
        } else {
            // Events still queued come first; then the pending files are looked at again in
            // case a change went unreported.
            readEvents();
            QList<Look> looks;
            for (const Pending& pending : std::as_const(m_pending)) {
                looks << look(pending.name);
            }
            apply(looks);
        }
        if (!m_running) {
            return;
        }
        deliverSettled();
        schedule();
    }

    void deliverSettled()
    {
        const Clock::time_point now = Clock::now();
        QList<Pending> settled;
        for (auto it = m_pending.begin(); it != m_pending.end();) {
            if (now - it->since >= m_options.settleInterval) {
                settled << *it;
                it = m_pending.erase(it);
            } else {
                ++it;
            }
        }
        if (settled.isEmpty()) {
            return;
        }
        std::sort(settled.begin(), settled.end(),
                  [](const Pending& a, const Pending& b) { return a.name < b.name; });
        QStringList paths;
        QList<FileIdentity> identities;
        {
            QMutexLocker lock(&m_knownLock);
            for (const Pending& file : settled) {
                m_known.insert(file.state.identity);
                paths << m_folder + QLatin1Char('/') + QFile::decodeName(file.name);
                identities << file.state.identity;
            }
        }
        FolderMonitor* owner = m_owner;
        QMetaObject::invokeMethod(
            owner, [owner, paths, identities] { emit owner->filesSettled(paths, identities); },
            Qt::QueuedConnection);
    }

    // The timer runs while files are pending (always when polling), and fires at the next
    // settle deadline when that comes before the next check.
    void schedule()
    {
        if (!m_timer || !m_running) {
            return;
        }
        if (m_pending.isEmpty() && !m_polling) {
            m_timer->stop();
            return;
        }
        milliseconds delay = m_options.checkInterval;
        if (!m_pending.isEmpty()) {
            Clock::time_point earliest = Clock::time_point::max();
            for (const Pending& pending : std::as_const(m_pending)) {
                earliest = std::min(earliest, pending.since);
            }
            const auto untilSettled =
                std::chrono::ceil<milliseconds>(earliest + m_options.settleInterval - Clock::now());
            delay = std::clamp(untilSettled, milliseconds(0), delay);
        }
        m_timer->start(delay);
    }

    // Called from the timer's and the notifier's own handlers, so they are stopped, not deleted.
    void gone()
    {
        m_running = false;
        m_timer->stop();
        if (m_notifier) {
            m_notifier->setEnabled(false);
        }
        closeFiles();
        FolderMonitor* owner = m_owner;
        QMetaObject::invokeMethod(
            owner, [owner] { emit owner->folderGone(); }, Qt::QueuedConnection);
    }

    FolderMonitor* m_owner;
    const QString m_folder;
    const QByteArray m_encodedFolder;
    const Options m_options;
    FileIdentity m_folderIdentity;
    bool m_polling = false;
    std::atomic<bool> m_running = false;
    FolderEvents m_events;
    int m_folderFd = -1; // polling only
    QSocketNotifier* m_notifier = nullptr;
    QTimer* m_timer = nullptr;
    QHash<QByteArray, Named> m_names; // the folder's files as last seen
    QHash<FileIdentity, Pending> m_pending;
    // Present at start or delivered; written only on the worker thread.
    QSet<FileIdentity> m_known;
    mutable QMutex m_knownLock;
};

FolderMonitor::FolderMonitor(QString folder, QObject* parent)
    : FolderMonitor(std::move(folder), Options{}, parent)
{}

FolderMonitor::FolderMonitor(QString folder, Options options, QObject* parent)
    : QObject(parent)
    , m_folder(std::move(folder))
    , m_options(std::move(options))
{}

FolderMonitor::~FolderMonitor()
{
    stop();
}

bool FolderMonitor::start(QString* error)
{
    if (m_thread) {
        return true;
    }
    auto worker = std::make_unique<Worker>(this, m_folder, m_options);
    if (!worker->open(error)) {
        return false;
    }
    m_worker = std::move(worker);
    m_thread = std::make_unique<QThread>();
    m_thread->setObjectName(QStringLiteral("folder-monitor"));
    m_worker->moveToThread(m_thread.get());
    m_thread->start();
    Worker* started = m_worker.get();
    QMetaObject::invokeMethod(
        started, [started] { started->begin(); }, Qt::QueuedConnection);
    return true;
}

void FolderMonitor::stop()
{
    if (!m_thread) {
        return;
    }
    Worker* worker = m_worker.get();
    QMetaObject::invokeMethod(
        worker, [worker] { worker->shutdown(); }, Qt::BlockingQueuedConnection);
    m_thread->quit();
    m_thread->wait();
    m_thread.reset();
    m_worker->closeFiles();
}

bool FolderMonitor::isRunning() const
{
    return m_thread && m_worker->isRunning();
}

bool FolderMonitor::isPolling() const
{
    return m_worker && m_worker->isPolling();
}

QSet<FileIdentity> FolderMonitor::knownIdentities() const
{
    return m_worker ? m_worker->known() : QSet<FileIdentity>{};
}
