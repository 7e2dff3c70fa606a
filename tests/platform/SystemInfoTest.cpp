#include "platform/SystemInfo.h"

#include <gtest/gtest.h>

namespace {

TEST(TaskSystemInfo, VersionTripleTakesTheLeadingNumbers)
{
    const std::pair<const char*, const char*> rows[] = {
        {"6.1.0-18-amd64", "6.1.0"}, {"5.15.153.1-microsoft-standard-WSL2", "5.15.153"},
        {"5.10", "5.10.0"},          {"4.19.0+", "4.19.0"},
        {"6.8-rc3", "6.8.0"},        {"", "0.0.0"},
        {"generic", "0.0.0"},
    };
    for (const auto& [release, expected] : rows) {
        EXPECT_EQ(SystemInfo::versionTriple(QString::fromLatin1(release)),
                  QString::fromLatin1(expected))
            << release;
    }
}

} // namespace
