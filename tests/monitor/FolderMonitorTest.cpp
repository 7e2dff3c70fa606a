// The folder watcher on real temporary folders, with inotify and with polling.
#include "monitor/FolderMonitor.h"

#include "tests/support/EventLoop.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>

#include <functional>
#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;
constexpr auto Settle = 300ms;

class Watch {
public:
    explicit Watch(bool polling)
        : m_polling(polling)
    {
        ensureCoreApplication();
        m_clock.start();
    }

    QString path(const QString& name) const { return m_dir.filePath(name); }
    void write(const QString& name, const QByteArray& data = "data",
               QIODevice::OpenMode mode = QIODevice::WriteOnly)
    {
        QFile file(path(name));
        ASSERT_TRUE(file.open(mode));
        file.write(data);
    }
    FileIdentity identity(const QString& name) const { return *FileIdentity::of(path(name)); }

    bool start(std::optional<QSet<FileIdentity>> knownBefore = std::nullopt)
    {
        FolderMonitor::Options options{Settle, 100ms, m_polling, std::move(knownBefore)};
        monitor = std::make_unique<FolderMonitor>(m_dir.path(), options);
        QObject::connect(monitor.get(), &FolderMonitor::filesSettled,
                         [this](const QStringList& paths, const QList<FileIdentity>& ids) {
                             for (qsizetype i = 0; i < paths.size(); ++i) {
                                 delivered << QFileInfo(paths[i]).fileName();
                                 deliveredAt << m_clock.elapsed();
                                 EXPECT_EQ(FileIdentity::of(paths[i]), ids[i]);
                             }
                         });
        QObject::connect(monitor.get(), &FolderMonitor::folderGone, [this] { ++gone; });
        return monitor->start();
    }
    bool waitDelivered(const QString& name, int timeoutMs = 10000)
    {
        return waitUntil([&] { return delivered.contains(name); }, timeoutMs);
    }
    qint64 now() const { return m_clock.elapsed(); }

    std::unique_ptr<FolderMonitor> monitor;
    QStringList delivered;
    QList<qint64> deliveredAt;
    int gone = 0;

private:
    bool m_polling;
    QTemporaryDir m_dir;
    QElapsedTimer m_clock;
};

struct Row {
    const char* name;
    std::function<void(Watch&)> before; // files there when the watch starts
    std::function<void(Watch&)> after;
    QStringList expected;
    bool catchUp = false; // knownBefore = what is there before, minus "new-*" files
};

void PrintTo(const Row& row, std::ostream* out)
{
    *out << row.name;
}

const Row Rows[] = {
    {"PresentFilesNeverTrigger",
     [](Watch& w) { w.write("a.txt"); },
     [](Watch& w) {
         w.write("a.txt", "more", QIODevice::Append);
         QFile::setPermissions(w.path("a.txt"), QFile::ReadOwner);
     },
     {}},
    {"NewFileTriggersOnce", nullptr, [](Watch& w) { w.write("new.txt"); }, {"new.txt"}},
    {"RenameDoesNotTrigger",
     [](Watch& w) { w.write("old.txt"); },
     [](Watch& w) {
         QFile::rename(w.path("old.txt"), w.path("renamed.txt"));
         w.write("b.txt");
         ASSERT_TRUE(w.waitDelivered("b.txt"));
         QFile::rename(w.path("b.txt"), w.path("b2.txt"));
     },
     {"b.txt"}},
    {"DotTempRenamedTriggersForFinalName",
     nullptr,
     [](Watch& w) {
         w.write(".final.txt.Xy12");
         w.write("first.txt"); // settles after the temporary file would have
         ASSERT_TRUE(w.waitDelivered("first.txt"));
         QFile::rename(w.path(".final.txt.Xy12"), w.path("final.txt"));
     },
     {"first.txt", "final.txt"}},
    {"NewFileReusingDeletedInodeTriggers",
     nullptr,
     [](Watch& w) {
         w.write("a.txt");
         ASSERT_TRUE(w.waitDelivered("a.txt"));
         QFile::remove(w.path("a.txt"));
         w.write("b.txt"); // ext4 hands out the freed inode number at once
     },
     {"a.txt", "b.txt"}},
    {"SubfolderIgnored",
     nullptr,
     [](Watch& w) {
         QDir(w.path({})).mkdir("sub");
         w.write("sub/inner.txt");
     },
     {}},
    {"CatchUpOnArrivalsWhileStopped",
     [](Watch& w) {
         w.write("seen.txt");
         w.write("new-while-stopped.txt");
     },
     nullptr,
     {"new-while-stopped.txt"},
     true},
};

class FolderMonitorTest : public testing::TestWithParam<std::tuple<bool, Row>> {};

TEST_P(FolderMonitorTest, DeliversEachArrivalOnce)
{
    const auto& [polling, row] = GetParam();
    Watch w(polling);
    if (row.before) {
        row.before(w);
    }
    std::optional<QSet<FileIdentity>> knownBefore;
    if (row.catchUp) {
        knownBefore = QSet<FileIdentity>{w.identity("seen.txt")};
    }
    ASSERT_TRUE(w.start(knownBefore));
    EXPECT_EQ(w.monitor->isPolling(), polling);
    if (row.after) {
        row.after(w);
    }
    // Whatever the steps changed settles no later than a file written after them.
    w.write("zz-sentinel");
    ASSERT_TRUE(w.waitDelivered("zz-sentinel"));
    QStringList expected = row.expected;
    expected << "zz-sentinel";
    EXPECT_EQ(w.delivered, expected);
    if (row.catchUp) {
        EXPECT_TRUE(w.monitor->knownIdentities().contains(w.identity("seen.txt")));
    }
}

class FolderMonitorModeTest : public testing::TestWithParam<bool> {};

TEST_P(FolderMonitorModeTest, GrowingFileSettlesAfterItsLastWrite)
{
    Watch w(GetParam());
    ASSERT_TRUE(w.start());
    qint64 lastWrite = 0;
    for (int i = 0; i < 15; ++i) {
        w.write("growing.bin", QByteArray(1000, 'x'), QIODevice::Append);
        lastWrite = w.now();
        spin(100);
    }
    ASSERT_TRUE(w.waitDelivered("growing.bin"));
    spin(2 * int(Settle.count()));
    EXPECT_EQ(w.delivered, QStringList{"growing.bin"});
    EXPECT_GE(w.deliveredAt[0] - lastWrite, Settle.count());
}

TEST_P(FolderMonitorModeTest, FolderRemovedOrReplacedIsGone)
{
    for (const bool replace : {false, true}) {
        Watch w(GetParam());
        w.write("a.txt");
        ASSERT_TRUE(w.start());
        const QString folder = QFileInfo(w.path("a.txt")).absolutePath();
        ASSERT_TRUE(QDir(folder).removeRecursively());
        if (replace) {
            ASSERT_TRUE(QDir().mkdir(folder));
        }
        ASSERT_TRUE(waitUntil([&] { return w.gone > 0; })) << "replace " << replace;
        spin(300);
        EXPECT_EQ(w.gone, 1);
        EXPECT_FALSE(w.monitor->isRunning());
        w.monitor->stop();
        w.monitor->stop();
    }
}

INSTANTIATE_TEST_SUITE_P(Modes, FolderMonitorTest,
                         testing::Combine(testing::Values(false, true), testing::ValuesIn(Rows)),
                         [](const auto& param) {
                             return std::string(std::get<0>(param.param) ? "Polling_"
                                                                         : "Inotify_") +
                                    std::get<1>(param.param).name;
                         });

INSTANTIATE_TEST_SUITE_P(Modes, FolderMonitorModeTest, testing::Values(false, true),
                         [](const auto& param) { return param.param ? "Polling" : "Inotify"; });

TEST(FolderMonitorStartTest, MissingFolderFailsWithTheSystemReason)
{
    FolderMonitor monitor(QDir::temp().filePath("skelvo-no-such-folder"));
    QString error;
    EXPECT_FALSE(monitor.start(&error));
    EXPECT_EQ(error, "No such file or directory");
    EXPECT_FALSE(monitor.isRunning());
}

} // namespace
