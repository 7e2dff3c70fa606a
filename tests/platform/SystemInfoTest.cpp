#include "platform/SystemInfo.h"

#include <QRegularExpression>

#include <gtest/gtest.h>
#include <sys/utsname.h>

namespace {

TEST(TaskSystemInfo, VersionTripleTakesTheLeadingNumbers)
{
    const std::pair<const char*, const char*> rows[] = {
        {"6.18.44-fc", "6.18.44"},
        {"6.1.0-18-amd64", "6.1.0"},
        {"5.15.153.1-microsoft-standard-WSL2", "5.15.153"},
        {"5.10", "5.10.0"},
        {"4.19.0+", "4.19.0"},
        {"7", "7.0.0"},
        {"6.8-rc3", "6.8.0"},
        {"", "0.0.0"},
        {"generic", "0.0.0"},
    };
    for (const auto& [release, expected] : rows) {
        EXPECT_EQ(SystemInfo::versionTriple(QString::fromLatin1(release)),
                  QString::fromLatin1(expected))
            << release;
    }
}

TEST(TaskSystemInfo, AnswersForThisMachine)
{
    struct utsname info {};
    ASSERT_EQ(uname(&info), 0);
    EXPECT_EQ(SystemInfo::osVersion(),
              SystemInfo::versionTriple(QString::fromLatin1(info.release)));
    EXPECT_NE(SystemInfo::osVersion(), QStringLiteral("0.0.0"));
    EXPECT_TRUE(QRegularExpression(QStringLiteral("^\\d+\\.\\d+\\.\\d+$"))
                    .match(SystemInfo::osVersion())
                    .hasMatch());
    EXPECT_EQ(SystemInfo::machineHardwareName(), QString::fromLatin1(info.machine));
    EXPECT_EQ(SystemInfo::isAppleSiliconEquivalent(),
              SystemInfo::isArm64MachineName(SystemInfo::machineHardwareName()));
}

TEST(TaskSystemInfo, OnlyArm64HardwareCounts)
{
    EXPECT_TRUE(SystemInfo::isArm64MachineName(QStringLiteral("arm64")));
    EXPECT_TRUE(SystemInfo::isArm64MachineName(QStringLiteral("aarch64")));
    for (const char* name : {"x86_64", "i686", "armv7l", "aarch64_be", "", "ARM64"}) {
        EXPECT_FALSE(SystemInfo::isArm64MachineName(QString::fromLatin1(name))) << name;
    }
}

} // namespace
