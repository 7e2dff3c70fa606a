#include "platform/FileSecretStore.h"

#include "core/SupportPaths.h"

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

bool load(const QString& path, QJsonArray* items, QString* error)
{
    QFile file(path);
    if (!file.exists()) {
        *items = {};
        return true;
    }
    if (!file.open(QIODevice::ReadOnly)) {
        *error = file.errorString();
        return false;
    }
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll());
    if (!document.isObject()) {
        *error = QStringLiteral("%1 is damaged").arg(path);
        return false;
    }
    *items = document.object().value(ItemsKey).toArray();
    return true;
}

// Written beside the file with mode 0600 from the start, synced, then renamed over it.
bool save(const QString& path, const QJsonArray& items, QString* error)
{
    const QByteArray data = QJsonDocument(QJsonObject{{ItemsKey, items}}).toJson();
    const QByteArray temporary = QFile::encodeName(path + QStringLiteral(".new"));
    const int fd = ::open(temporary.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
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

SecretStore::Result FileSecretStore::readSecret(const QString& service, const QString& account)
{
    const QString path = filePath();
    QJsonArray items;
    QString error;
    if (!load(path, &items, &error)) {
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

SecretStore::Result FileSecretStore::writeSecret(const QString& service, const QString& account,
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
    if (!load(path, &items, &error)) {
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

SecretStore::Result FileSecretStore::deleteSecret(const QString& service, const QString& account)
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
    if (!load(path, &items, &error)) {
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
