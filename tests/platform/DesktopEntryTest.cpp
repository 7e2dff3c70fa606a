#include "platform/DesktopEntry.h"

#include "platform/ApplicationFiles.h"
#include "tests/support/TestHome.h"

#include <QFile>

#include <gtest/gtest.h>

namespace {

const QByteArray Entry = "# comment\n"
                         "[Desktop Action New]\nName=New Window\n"
                         "[Desktop Entry]\n"
                         "Type=Application\n"
                         "Name=Files\\sand\\tmore\n"
                         "Name[de]=Dateien\n"
                         "Name[de_AT]=Dateien AT\n"
                         "Name[sr@latin]=Datoteke\n"
                         "Name[sr_RS@latin]=Datoteke RS\n"
                         "Icon = org.example.Files\n"
                         "Name=Duplicate\n";

struct LocaleRow {
    const char* locale;
    const char* name;
};

class LocalizedNameTest : public testing::TestWithParam<LocaleRow> {};

TEST_P(LocalizedNameTest, MatchesTheMostSpecificLocaleFirst)
{
    const auto entry = DesktopEntry::parse(Entry);
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->name(QString::fromLatin1(GetParam().locale)),
              QString::fromUtf8(GetParam().name));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, LocalizedNameTest,
    testing::Values(LocaleRow{"de_AT.UTF-8", "Dateien AT"}, LocaleRow{"de_CH.UTF-8", "Dateien"},
                    LocaleRow{"de", "Dateien"}, LocaleRow{"sr_RS@latin", "Datoteke RS"},
                    LocaleRow{"sr_ME@latin", "Datoteke"}, LocaleRow{"fr_FR", "Files and\tmore"},
                    LocaleRow{"C", "Files and\tmore"}));

TEST(DesktopEntryTest, ReadsTheMainGroupOnly)
{
    const auto entry = DesktopEntry::parse(Entry);
    ASSERT_TRUE(entry);
    EXPECT_TRUE(entry->isApplication());
    EXPECT_EQ(entry->icon(), QStringLiteral("org.example.Files"));
    EXPECT_FALSE(DesktopEntry::parse("[Desktop Action X]\nName=Y\n"));
}

TEST(ApplicationFilesTest, KnowsApplications)
{
    TestHome home;
    const QString app = home.writeFile(QStringLiteral("a.desktop"), Entry);
    const QString link =
        home.writeFile(QStringLiteral("b.desktop"), "[Desktop Entry]\nType=Link\nName=Web\n");
    const QString script = home.writeFile(QStringLiteral("tool.AppImage"), "#!/bin/sh\n");
    const QString plain = home.writeFile(QStringLiteral("notes.txt"), "x");
    QFile::setPermissions(script, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    EXPECT_TRUE(ApplicationFiles::isApplication(app));
    EXPECT_FALSE(ApplicationFiles::isApplication(link));
    EXPECT_TRUE(ApplicationFiles::isApplication(script));
    EXPECT_FALSE(ApplicationFiles::isApplication(plain));
    EXPECT_FALSE(ApplicationFiles::isApplication(home.path())); // a folder
    qputenv("LC_ALL", "de_DE.UTF-8");
    EXPECT_EQ(ApplicationFiles::displayName(app), QStringLiteral("Dateien"));
    qunsetenv("LC_ALL");
    EXPECT_TRUE(ApplicationFiles::displayName(script).isEmpty());
}

} // namespace
