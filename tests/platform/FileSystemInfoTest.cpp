#include "platform/FileSystemInfo.h"

#include "tests/support/TestHome.h"

#include <QDir>
#include <QFileInfo>

#include <gtest/gtest.h>

namespace {

TEST(FileSystemInfoTest, KnowsNetworkFileSystemsByTypeAndMagicNumber)
{
    const std::pair<const char*, bool> types[] = {
        {"nfs", true},        {"nfs4", true},  {"cifs", true},         {"smb3", true},
        {"fuse.sshfs", true}, {"9p", true},    {"ceph", true},         {"fuse.gvfsd-fuse", true},
        {"NFS4", true},       {"ext4", false}, {"btrfs", false},       {"tmpfs", false},
        {"overlay", false},   {"fuse", false}, {"fuse.portal", false}, {"", false}};
    for (const auto& [type, network] : types) {
        EXPECT_EQ(FileSystemInfo::isNetworkFileSystemType(type), network) << type;
    }
    const std::pair<qint64, bool> magics[] = {
        {0x6969, true},  {0xFF534D42, true},  {0xFE534D42, true}, {0x517B, true},
        {0xEF53, false}, {0x01021994, false}, {0x65735546, false}};
    for (const auto& [magic, network] : magics) {
        EXPECT_EQ(FileSystemInfo::isNetworkFileSystemMagic(magic), network) << magic;
    }
}

TEST(MountInfoTest, ReadsMountPointsTypesAndEscapes)
{
    const auto entries = FileSystemInfo::parseMountInfo(
        "22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
        "95 22 0:61 / /mnt/My\\040Share rw master:3 - cifs //nas/My\\040Share rw,vers=3.0\n"
        "garbage line\n"
        "96 22 0:62 / /home/u/remote rw - fuse.sshfs u@host: rw\n");
    ASSERT_EQ(entries.size(), 3);
    EXPECT_EQ(entries.at(1).mountPoint, "/mnt/My Share");
    EXPECT_EQ(entries.at(1).fileSystemType, "cifs");
    EXPECT_EQ(entries.at(1).source, "//nas/My Share");
    EXPECT_EQ(entries.at(2).fileSystemType, "fuse.sshfs");
}

class MountLookupTest : public testing::Test {
protected:
    void TearDown() override { FileSystemInfo::setMountInfoPath({}); }
    TestHome m_home;
};

TEST_F(MountLookupTest, TheLongestMountPointWinsAndMissingChildrenUseTheirParent)
{
    const QString root = QFileInfo(m_home.path()).canonicalFilePath();
    QDir().mkpath(root + "/net/inner");
    QDir().mkpath(root + "/netflix");
    FileSystemInfo::setMountInfoPath(m_home.writeFile(
        "mountinfo", QStringLiteral("1 0 8:1 / / rw - ext4 /dev/sda1 rw\n"
                                    "2 1 0:40 / %1/net rw - nfs srv:/x rw\n"
                                    "3 2 0:41 / %1/net/inner rw - tmpfs tmpfs rw\n")
                         .arg(root)
                         .toUtf8()));
    EXPECT_TRUE(FileSystemInfo::isOnNetworkFileSystem(root + "/net"));
    EXPECT_TRUE(FileSystemInfo::isOnNetworkFileSystem(root + "/net/not/yet/there"));
    EXPECT_FALSE(FileSystemInfo::isOnNetworkFileSystem(root + "/net/inner"));
    EXPECT_FALSE(FileSystemInfo::isOnNetworkFileSystem(root + "/netflix"));
    EXPECT_EQ(FileSystemInfo::fileSystemType(root), "ext4");
}

TEST_F(MountLookupTest, TheRealMountTableOrElseStatfsAnswers)
{
    EXPECT_FALSE(FileSystemInfo::fileSystemType(m_home.path()).isEmpty());
    // Tests run on a local disk.
    EXPECT_FALSE(FileSystemInfo::isOnNetworkFileSystem(m_home.path()));
    FileSystemInfo::setMountInfoPath(m_home.path() + "/no-such-table");
    EXPECT_TRUE(FileSystemInfo::fileSystemType(m_home.path()).isEmpty());
    EXPECT_FALSE(FileSystemInfo::isOnNetworkFileSystem(m_home.path()));
}

} // namespace
