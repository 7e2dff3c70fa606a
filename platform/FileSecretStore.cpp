#include "platform/FileSecretStore.h"

#include "core/Log.h"
#include "core/SupportPaths.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const QString ItemsKey = QStringLiteral("items");
const QString ServiceKey = QStringLiteral("service");
const QString AccountKey = QStringLiteral("account");
const QString SecretKey = QStringLiteral("secret");

QString systemError()
{
    return QString::fromLocal8Bit(std::strerror(errno));
}

SecretStore::Result failed(const QString& why)
{
    return {SecretStore::Status::Failed, {}, why};
}

// Holds an exclusive lock on "<file>.lock" while alive.
class FileLock {
public:
    explicit FileLock(const QString& path)
    {
        m_fd = ::open(QFile::encodeName(path).constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (m_fd >= 0 && ::flock(m_fd, LOCK_EX) != 0) {
            ::close(m_fd);
            m_fd = -1;
        }
    }
    ~FileLock()
    {
        if (m_fd >= 0) {
            ::close(m_fd); // releases the lock
        }
    }
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;
    bool locked() const { return m_fd >= 0; }

private:
    int m_fd = -1;
};

bool prepareFolder(const QString& folder, QString* error)
{
    if (!QDir().mkpath(folder)) {
        *error = QStringLiteral("Could not create %1").arg(folder);
        return false;
    }
    if (::chmod(QFile::encodeName(folder).constData(), 0700) != 0) {
        *error = systemError();
        return false;
    }
    return true;
}

// Opens the file without following a link and narrows permissions that something else
// widened; the file holds passwords.
enum class Loaded { Ok, Damaged, Failed };

Loaded load(const QString& path, QJsonArray* items, QString* error)
{
    *items = {};
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT) {
            return Loaded::Ok;
        }
        *error = systemError();
        return Loaded::Failed;
    }
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        *error = QStringLiteral("%1 is not a regular file").arg(path);
        ::close(fd);
        return Loaded::Failed;
    }
    if ((info.st_mode & 077) != 0 && ::fchmod(fd, 0600) != 0) {
        *error = systemError();
        ::close(fd);
        return Loaded::Failed;
    }
    QFile file;
    if (!file.open(fd, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle)) {
        *error = file.errorString();
        ::close(fd);
        return Loaded::Failed;
    }
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll());
    if (!document.isObject()) {
        *error = QStringLiteral("%1 is damaged").arg(path);
        return Loaded::Damaged;
    }
    *items = document.object().value(ItemsKey).toArray();
    return Loaded::Ok;
}

// A damaged file is kept beside the store for the user to look at; writing goes on with an
// empty store instead of failing from now on.
bool loadForWriting(const QString& path, QJsonArray* items, QString* error)
{
    switch (load(path, items, error)) {
    case Loaded::Ok:
        return true;
    case Loaded::Failed:
        return false;
    case Loaded::Damaged:
        break;
    }
    const QString aside =
        path + QStringLiteral(".damaged-") +
        QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss-zzz"));
    if (::rename(QFile::encodeName(path).constData(), QFile::encodeName(aside).constData()) != 0) {
        *error = systemError();
        return false;
    }
    Log::error(QStringLiteral("The secrets file was damaged; it was kept as %1").arg(aside));
    *items = {};
    return true;
}

bool syncFolder(const QString& folder)
{
    const int fd =
        ::open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const bool synced = ::fsync(fd) == 0;
    ::close(fd);
    return synced;
}

// Written beside the file with mode 0600 from the start (never through a link left there),
// synced, renamed over it, and the rename made durable by syncing the folder.
bool save(const QString& path, const QJsonArray& items, QString* error)
{
    const QByteArray data = QJsonDocument(QJsonObject{{ItemsKey, items}}).toJson();
    const QByteArray temporary = QFile::encodeName(path + QStringLiteral(".new"));
    // A leftover of an interrupted write; the lock is held, so no writer owns it.
    ::unlink(temporary.constData());
    const int fd =
        ::open(temporary.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        *error = systemError();
        return false;
    }
    qsizetype written = 0;
    while (written < data.size()) {
        const ssize_t n =
            ::write(fd, data.constData() + written, static_cast<size_t>(data.size() - written));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            *error = systemError();
            ::close(fd);
            ::unlink(temporary.constData());
            return false;
        }
        written += n;
    }
    const bool synced = ::fchmod(fd, 0600) == 0 && ::fsync(fd) == 0;
    ::close(fd);
    if (!synced || ::rename(temporary.constData(), QFile::encodeName(path).constData()) != 0) {
        *error = systemError();
        ::unlink(temporary.constData());
        return false;
    }
    if (!syncFolder(QFileInfo(path).absolutePath())) {
        Log::warning(QStringLiteral("Could not sync the folder of %1").arg(path));
    }
    return true;
}

qsizetype indexOf(const QJsonArray& items, const QString& service, const QString& account)
{
    for (qsizetype i = 0; i < items.size(); ++i) {
        const QJsonObject item = items.at(i).toObject();
        if (item.value(ServiceKey).toString() == service &&
            item.value(AccountKey).toString() == account) {
            return i;
        }
    }
    return -1;
}

} // namespace

FileSecretStore::FileSecretStore(QString filePath)
    : m_filePath(std::move(filePath))
{}

QString FileSecretStore::filePath() const
{
    if (!m_filePath.isEmpty()) {
        return m_filePath;
    }
    return QDir(SupportPaths::applicationSupportDirectory())
        .filePath(QStringLiteral("Secrets/logins.json"));
}

SecretStore::Result FileSecretStore::read(const QString& service, const QString& account)
{
    const QString path = filePath();
    QJsonArray items;
    QString error;
    if (load(path, &items, &error) != Loaded::Ok) {
        return failed(error);
    }
    const qsizetype index = indexOf(items, service, account);
    if (index < 0) {
        return {Status::NotFound, {}, QStringLiteral("The item could not be found.")};
    }
    const QByteArray secret =
        QByteArray::fromBase64(items.at(index).toObject().value(SecretKey).toString().toLatin1());
    return {Status::Ok, secret, {}};
}

SecretStore::Result FileSecretStore::write(const QString& service, const QString& account,
                                           const QByteArray& secret)
{
    const QString path = filePath();
    QString error;
    if (!prepareFolder(QFileInfo(path).absolutePath(), &error)) {
        return failed(error);
    }
    FileLock lock(path + QStringLiteral(".lock"));
    if (!lock.locked()) {
        return failed(systemError());
    }
    QJsonArray items;
    if (!loadForWriting(path, &items, &error)) {
        return failed(error);
    }
    const QJsonObject item{{ServiceKey, service},
                           {AccountKey, account},
                           {SecretKey, QString::fromLatin1(secret.toBase64())}};
    const qsizetype index = indexOf(items, service, account);
    if (index >= 0) {
        items.replace(index, item);
    } else {
        items.append(item);
    }
    if (!save(path, items, &error)) {
        return failed(error);
    }
    return {Status::Ok, {}, {}};
}

SecretStore::Result FileSecretStore::remove(const QString& service, const QString& account)
{
    const QString path = filePath();
    if (!QFileInfo::exists(path)) {
        return {Status::NotFound, {}, QStringLiteral("The item could not be found.")};
    }
    FileLock lock(path + QStringLiteral(".lock"));
    if (!lock.locked()) {
        return failed(systemError());
    }
    QJsonArray items;
    QString error;
    if (!loadForWriting(path, &items, &error)) {
        return failed(error);
    }
    const qsizetype index = indexOf(items, service, account);
    if (index < 0) {
        return {Status::NotFound, {}, QStringLiteral("The item could not be found.")};
    }
    items.removeAt(index);
    if (!save(path, items, &error)) {
        return failed(error);
    }
    return {Status::Ok, {}, {}};
}

void FileSecretStore::readSecret(const QString& service, const QString& account, Done done)
{
    done(read(service, account));
}

void FileSecretStore::writeSecret(const QString& service, const QString& account,
                                  const QByteArray& secret, Done done)
{
    done(write(service, account, secret));
}

void FileSecretStore::deleteSecret(const QString& service, const QString& account, Done done)
{
    done(remove(service, account));
}
