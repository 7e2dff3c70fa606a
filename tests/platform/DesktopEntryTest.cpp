#include "platform/DesktopEntry.h"

#include "platform/ApplicationFiles.h"
#include "tests/support/TestHome.h"

#include <QFile>

#include <gtest/gtest.h>

namespace {

const QByteArray Entry = "# comment\n"
                         "[Desktop Entry]\n"
                         "Type=Application\n"
                         "Name=Files\\sand\\tmore\n"
                         "Name[de]=Dateien\n"
                         "Name[de_AT]=Dateien AT\n"
                         "Name[sr@latin]=Datoteke\n"
                         "Name[sr_RS@latin]=Datoteke RS\n"
                         "Icon = org.example.Files\n"
                         "Actions=New\n"
                         "[Desktop Action New]\nName=New Window\nIcon=window-new\n";

TEST(DesktopEntryTest, MatchesTheMostSpecificLocaleFirst)
{
    const auto entry = DesktopEntry::parse(Entry);
    ASSERT_TRUE(entry);
    const std::pair<const char*, const char*> rows[] = {
        {"de_AT.UTF-8", "Dateien AT"}, {"de_CH.UTF-8", "Dateien"},   {"sr_RS@latin", "Datoteke RS"},
        {"sr_ME@latin", "Datoteke"},   {"fr_FR", "Files and\tmore"}, {"C", "Files and\tmore"},
    };
    for (const auto& [locale, name] : rows) {
        EXPECT_EQ(entry->name(QString::fromLatin1(locale)), QString::fromUtf8(name)) << locale;
    }
}

TEST(DesktopEntryTest, ReadsTheMainGroupOnly)
{
    const auto entry = DesktopEntry::parse(Entry);
    ASSERT_TRUE(entry);
    EXPECT_TRUE(entry->isApplication());
    EXPECT_EQ(entry->icon(), "org.example.Files");
    EXPECT_FALSE(DesktopEntry::parse("[Desktop Action X]\nName=Y\n[Desktop Entry]\nName=Z\n"));
    EXPECT_FALSE(DesktopEntry::parse("not a key file"));
    // An application whose TryExec program is missing cannot be launched.
    const auto missing = DesktopEntry::parse(
        "[Desktop Entry]\nType=Application\nName=X\nTryExec=/nonexistent/x\nExec=x\n");
    ASSERT_TRUE(missing);
    EXPECT_FALSE(missing->isApplication());
}

TEST(ApplicationFilesTest, KnowsApplications)
{
    TestHome home;
    const QString app = home.writeFile("a.desktop", Entry);
    const QString link = home.writeFile("b.desktop", "[Desktop Entry]\nType=Link\nName=Web\n");
    const QString script = home.writeFile("tool.AppImage", "#!/bin/sh\n");
    const QString plain = home.writeFile("notes.txt", "x");
    QFile::setPermissions(script, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    EXPECT_TRUE(ApplicationFiles::isApplication(app));
    EXPECT_FALSE(ApplicationFiles::isApplication(link));
    EXPECT_TRUE(ApplicationFiles::isApplication(script));
    EXPECT_FALSE(ApplicationFiles::isApplication(plain));
    EXPECT_FALSE(ApplicationFiles::isApplication(home.path())); // a folder
    qputenv("LC_ALL", "de_DE.UTF-8");
    EXPECT_EQ(ApplicationFiles::displayName(app), "Dateien");
    qunsetenv("LC_ALL");
    EXPECT_TRUE(ApplicationFiles::displayName(script).isEmpty());
}

} // namespace
