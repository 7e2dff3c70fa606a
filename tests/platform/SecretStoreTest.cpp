#include "platform/FileSecretStore.h"
#include "platform/QtKeychainSecretStore.h"
#include "tests/support/TestHome.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>
#include <map>
#include <sys/stat.h>

namespace {

mode_t modeOf(const QString& path)
{
    struct stat info {};
    ::stat(QFile::encodeName(path).constData(), &info);
    return info.st_mode & 0777;
}

QByteArray contentsOf(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

TEST(FileSecretStoreTest, KeepsSecretsForTheUserOnly)
{
    TestHome home;
    FileSecretStore store;
    ASSERT_TRUE(store.write("svc", "ann", QByteArray("s\0ecret", 7)).ok());
    ASSERT_TRUE(store.write("svc", "bob", "b").ok());
    ASSERT_TRUE(store.write("svc", "ann", "replaced").ok());

    EXPECT_EQ(modeOf(store.filePath()), 0600u);
    EXPECT_EQ(modeOf(QFileInfo(store.filePath()).absolutePath()), 0700u);
    EXPECT_TRUE(store.filePath().startsWith(home.path()));
    EXPECT_FALSE(QFileInfo::exists(store.filePath() + ".new"));
    EXPECT_FALSE(contentsOf(store.filePath()).contains("replaced")); // not in plain text at least

    EXPECT_EQ(store.read("svc", "ann").secret, QByteArray("replaced"));
    EXPECT_EQ(FileSecretStore(store.filePath()).read("svc", "bob").secret, QByteArray("b"));
    EXPECT_EQ(store.read("other", "ann").status, SecretStore::Status::NotFound);

    EXPECT_TRUE(store.remove("svc", "ann").ok());
    EXPECT_EQ(store.remove("svc", "ann").status, SecretStore::Status::NotFound);
    EXPECT_TRUE(store.read("svc", "bob").ok());
}

TEST(FileSecretStoreTest, ADamagedFileIsKeptAsideAndWritingGoesOn)
{
    TestHome home;
    FileSecretStore store(home.writeFile("Secrets/logins.json", "{broken"));
    EXPECT_EQ(store.read("s", "a").status, SecretStore::Status::Failed);
    ASSERT_TRUE(store.write("s", "a", "x").ok());
    EXPECT_EQ(store.read("s", "a").secret, QByteArray("x"));
    const QStringList aside = QDir(home.path() + "/Secrets").entryList({"logins.json.damaged-*"});
    ASSERT_EQ(aside.size(), 1);
    EXPECT_EQ(contentsOf(home.path() + "/Secrets/" + aside.first()),
              QByteArray("{broken")); // left for the user to rescue
}

TEST(FileSecretStoreTest, WiderPermissionsAreNarrowedAndLinksAreNotFollowed)
{
    TestHome home;
    FileSecretStore store;
    ASSERT_TRUE(store.write("s", "a", "x").ok());
    ::chmod(QFile::encodeName(store.filePath()).constData(), 0644);
    EXPECT_TRUE(store.read("s", "a").ok());
    EXPECT_EQ(modeOf(store.filePath()), 0600u);

    // A link planted where the temporary file goes must not redirect the write.
    const QString target = home.writeFile("elsewhere.txt", "untouched");
    ASSERT_TRUE(QFile::link(target, store.filePath() + ".new"));
    ASSERT_TRUE(store.write("s", "b", "y").ok());
    EXPECT_EQ(contentsOf(target), QByteArray("untouched"));
    EXPECT_EQ(store.read("s", "b").secret, QByteArray("y"));
}

// A secret service held in memory; while `hold` is set its answers wait in `pending`.
class FakeSecretService : public SecretStore {
public:
    void readSecret(const QString& service, const QString& account, Done done) override
    {
        const auto found = items.find({service, account});
        answer(found == items.end() ? Result{Status::NotFound, {}, "none"}
                                    : Result{Status::Ok, found->second, {}},
               std::move(done));
    }
    void writeSecret(const QString& service, const QString& account, const QByteArray& secret,
                     Done done) override
    {
        items[{service, account}] = secret;
        answer({Status::Ok, {}, {}}, std::move(done));
    }
    void deleteSecret(const QString& service, const QString& account, Done done) override
    {
        const bool erased = items.erase({service, account}) > 0;
        answer({erased ? Status::Ok : Status::NotFound, {}, {}}, std::move(done));
    }
    void answer(const Result& result, Done done)
    {
        if (hold) {
            pending.push_back([result, done] { done(result); });
        } else {
            done(result);
        }
    }

    std::map<std::pair<QString, QString>, QByteArray> items;
    bool hold = false;
    std::vector<std::function<void()>> pending;
};

TEST(QtKeychainSecretStoreTest, AServiceThatAppearsLaterIsUsedAndTakesOverTheFilesSecrets)
{
    TestHome home;
    auto service = std::make_shared<FakeSecretService>();
    auto file = std::make_shared<FileSecretStore>(home.path() + "/fallback.json");
    bool answers = false;
    int probes = 0;
    QtKeychainSecretStore store(
        service, file, [&] { return ++probes, answers; }, 0);

    SecretStore::Result result;
    auto keep = [&result](const SecretStore::Result& r) { result = r; };
    store.writeSecret("svc", "acc", "pw", keep);
    ASSERT_TRUE(result.ok());
    EXPECT_TRUE(service->items.empty());
    EXPECT_EQ(file->read("svc", "acc").secret, QByteArray("pw"));

    // A failed probe is asked again, and the secret moves over once a service answers.
    answers = true;
    service->hold = true;
    result = {};
    store.readSecret("svc", "acc", keep);
    EXPECT_EQ(result.status, SecretStore::Status::Failed) << "no answer while the service waits";
    while (!service->pending.empty()) {
        auto next = std::move(service->pending.front());
        service->pending.erase(service->pending.begin());
        next();
    }
    EXPECT_GE(probes, 2);
    ASSERT_TRUE(result.ok());
    EXPECT_EQ(result.secret, QByteArray("pw"));
    EXPECT_EQ((service->items[{"svc", "acc"}]), QByteArray("pw"));
    EXPECT_EQ(file->read("svc", "acc").status, SecretStore::Status::NotFound);

    // A store replaced while its job waits still answers, and touches nothing of its own
    // (a memory checker sees the freed store otherwise).
    result = {};
    auto replaced = std::make_unique<QtKeychainSecretStore>(
        service, file, [] { return true; }, 0);
    replaced->writeSecret("svc", "acc", "new", keep);
    replaced.reset();
    ASSERT_EQ(service->pending.size(), 1u);
    service->pending.front()();
    EXPECT_TRUE(result.ok());
}

TEST(QtKeychainSecretStoreTest, WithoutASecretServiceUsesThePrivateFile)
{
    TestHome home;
    const QByteArray bus = qgetenv("DBUS_SESSION_BUS_ADDRESS");
    qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + home.path().toUtf8() + "/no-bus");
    QtKeychainSecretStore store;
    EXPECT_FALSE(store.secretServiceAvailable());
    SecretStore::Result result;
    auto keep = [&result](const SecretStore::Result& r) { result = r; };
    store.writeSecret("svc", "acc", "pw", keep);
    ASSERT_TRUE(result.ok());
    FileSecretStore file;
    EXPECT_EQ(file.read("svc", "acc").secret, QByteArray("pw"));
    store.readSecret("svc", "acc", keep);
    EXPECT_EQ(result.secret, QByteArray("pw"));
    store.deleteSecret("svc", "acc", keep);
    EXPECT_TRUE(result.ok());
    EXPECT_EQ(modeOf(file.filePath()), 0600u);
    if (bus.isNull()) {
        qunsetenv("DBUS_SESSION_BUS_ADDRESS");
    } else {
        qputenv("DBUS_SESSION_BUS_ADDRESS", bus);
    }
}

} // namespace
