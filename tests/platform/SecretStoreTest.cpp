#include "platform/FileSecretStore.h"
#include "platform/QtKeychainSecretStore.h"
#include "tests/support/TestHome.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

mode_t modeOf(const QString& path)
{
    struct stat info {};
    ::stat(QFile::encodeName(path).constData(), &info);
    return info.st_mode & 0777;
}

TEST(FileSecretStoreTest, KeepsSecretsForTheUserOnly)
{
    TestHome home;
    FileSecretStore store;
    ASSERT_TRUE(
        store.writeSecret(QStringLiteral("svc"), QStringLiteral("ann"), QByteArray("s\0ecret", 7))
            .ok());
    ASSERT_TRUE(store.writeSecret(QStringLiteral("svc"), QStringLiteral("bob"), "b").ok());
    ASSERT_TRUE(store.writeSecret(QStringLiteral("svc"), QStringLiteral("ann"), "replaced").ok());

    EXPECT_EQ(modeOf(store.filePath()), 0600u);
    EXPECT_EQ(modeOf(QFileInfo(store.filePath()).absolutePath()), 0700u);
    EXPECT_TRUE(store.filePath().startsWith(home.path()));
    EXPECT_FALSE(QFileInfo::exists(store.filePath() + QStringLiteral(".new")));
    QFile file(store.filePath());
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_FALSE(file.readAll().contains("replaced")); // not in plain text at least

    EXPECT_EQ(store.readSecret(QStringLiteral("svc"), QStringLiteral("ann")).secret,
              QByteArray("replaced"));
    EXPECT_EQ(FileSecretStore(store.filePath())
                  .readSecret(QStringLiteral("svc"), QStringLiteral("bob"))
                  .secret,
              QByteArray("b"));
    EXPECT_EQ(store.readSecret(QStringLiteral("other"), QStringLiteral("ann")).status,
              SecretStore::Status::NotFound);

    EXPECT_TRUE(store.deleteSecret(QStringLiteral("svc"), QStringLiteral("ann")).ok());
    EXPECT_EQ(store.deleteSecret(QStringLiteral("svc"), QStringLiteral("ann")).status,
              SecretStore::Status::NotFound);
    EXPECT_TRUE(store.readSecret(QStringLiteral("svc"), QStringLiteral("bob")).ok());
}

TEST(FileSecretStoreTest, ADamagedFileIsAFailureNotAnEmptyStore)
{
    TestHome home;
    FileSecretStore store(home.writeFile(QStringLiteral("logins.json"), "{broken"));
    EXPECT_EQ(store.readSecret(QStringLiteral("s"), QStringLiteral("a")).status,
              SecretStore::Status::Failed);
    EXPECT_EQ(store.writeSecret(QStringLiteral("s"), QStringLiteral("a"), "x").status,
              SecretStore::Status::Failed);
    QFile file(store.filePath());
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(), QByteArray("{broken")); // left for the user to rescue
}

TEST(QtKeychainSecretStoreTest, WithoutASecretServiceUsesThePrivateFile)
{
    TestHome home;
    const QByteArray bus = qgetenv("DBUS_SESSION_BUS_ADDRESS");
    qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + home.path().toUtf8() + "/no-bus");
    auto fallback =
        std::make_shared<FileSecretStore>(home.path() + QStringLiteral("/fallback.json"));
    QtKeychainSecretStore store(fallback);
    EXPECT_FALSE(store.secretServiceAvailable());
    ASSERT_TRUE(store.writeSecret(QStringLiteral("svc"), QStringLiteral("acc"), "pw").ok());
    EXPECT_EQ(fallback->readSecret(QStringLiteral("svc"), QStringLiteral("acc")).secret,
              QByteArray("pw"));
    EXPECT_EQ(store.readSecret(QStringLiteral("svc"), QStringLiteral("acc")).secret,
              QByteArray("pw"));
    EXPECT_TRUE(store.deleteSecret(QStringLiteral("svc"), QStringLiteral("acc")).ok());
    EXPECT_EQ(modeOf(fallback->filePath()), 0600u);
    if (bus.isNull()) {
        qunsetenv("DBUS_SESSION_BUS_ADDRESS");
    } else {
        qputenv("DBUS_SESSION_BUS_ADDRESS", bus);
    }
}

} // namespace
