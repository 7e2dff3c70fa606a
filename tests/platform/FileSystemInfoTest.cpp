#include "platform/FileSystemInfo.h"

#include "tests/support/TestHome.h"

#include <QDir>
#include <QFileInfo>

#include <gtest/gtest.h>

namespace {

struct TypeRow {
    const char* type;
    bool network;
};

class NetworkTypeTest : public testing::TestWithParam<TypeRow> {};

TEST_P(NetworkTypeTest, KnowsNetworkFileSystems)
{
    EXPECT_EQ(FileSystemInfo::isNetworkFileSystemType(QString::fromLatin1(GetParam().type)),
              GetParam().network);
}

INSTANTIATE_TEST_SUITE_P(Rows, NetworkTypeTest,
                         testing::Values(TypeRow{"nfs", true}, TypeRow{"nfs4", true},
                                         TypeRow{"cifs", true}, TypeRow{"smb3", true},
                                         TypeRow{"fuse.sshfs", true}, TypeRow{"9p", true},
                                         TypeRow{"ceph", true}, TypeRow{"fuse.gvfsd-fuse", true},
                                         TypeRow{"NFS4", true}, TypeRow{"ext4", false},
                                         TypeRow{"btrfs", false}, TypeRow{"tmpfs", false},
                                         TypeRow{"overlay", false}, TypeRow{"fuse", false},
                                         TypeRow{"fuse.portal", false}, TypeRow{"", false}));

struct MagicRow {
    qint64 magic;
    bool network;
};

class NetworkMagicTest : public testing::TestWithParam<MagicRow> {};

TEST_P(NetworkMagicTest, KnowsStatfsMagicNumbers)
{
    EXPECT_EQ(FileSystemInfo::isNetworkFileSystemMagic(GetParam().magic), GetParam().network);
}

INSTANTIATE_TEST_SUITE_P(Rows, NetworkMagicTest,
                         testing::Values(MagicRow{0x6969, true}, MagicRow{0xFF534D42, true},
                                         MagicRow{0xFE534D42, true}, MagicRow{0x517B, true},
                                         MagicRow{0xEF53, false}, MagicRow{0x01021994, false},
                                         MagicRow{0x65735546, false}));

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

TEST_F(MountLookupTest, TheRealMountTableKnowsTheTemporaryFolder)
{
    EXPECT_FALSE(FileSystemInfo::fileSystemType(m_home.path()).isEmpty());
    // Tests run on a local disk.
    EXPECT_FALSE(FileSystemInfo::isOnNetworkFileSystem(m_home.path()));
}

TEST_F(MountLookupTest, WithoutAMountTableStatfsAnswers)
{
    FileSystemInfo::setMountInfoPath(m_home.path() + "/no-such-table");
    EXPECT_TRUE(FileSystemInfo::fileSystemType(m_home.path()).isEmpty());
    EXPECT_FALSE(FileSystemInfo::isOnNetworkFileSystem(m_home.path()));
}

} // namespace
