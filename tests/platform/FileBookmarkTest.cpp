#include "platform/FileBookmark.h"

#include "tests/support/TestHome.h"

#include <QFile>

#include <gtest/gtest.h>

namespace {

TEST(FileBookmarkTest, NoticesAMissingOrReplacedItem)
{
    TestHome home;
    const QString path = home.writeFile("chosen.txt", "one");
    const auto bookmark = FileBookmark::create(path);
    ASSERT_TRUE(bookmark);

    auto resolved = FileBookmark::resolve(*bookmark);
    ASSERT_TRUE(resolved);
    EXPECT_EQ(resolved->path, path);
    EXPECT_FALSE(resolved->missing);
    EXPECT_FALSE(resolved->replaced);

    // Rewriting keeps the file; replacing it by another does not.
    home.writeFile("chosen.txt", "two");
    EXPECT_FALSE(FileBookmark::resolve(*bookmark)->replaced);
    const QString other = home.writeFile("other.txt", "three");
    ASSERT_TRUE(QFile::remove(path));
    ASSERT_TRUE(QFile::rename(other, path));
    EXPECT_TRUE(FileBookmark::resolve(*bookmark)->replaced);

    ASSERT_TRUE(QFile::remove(path));
    resolved = FileBookmark::resolve(*bookmark);
    EXPECT_TRUE(resolved->missing);
}

TEST(FileBookmarkTest, RefusesWhatIsNotThere)
{
    TestHome home;
    QString error;
    EXPECT_FALSE(FileBookmark::create(home.path() + "/nothing", &error));
    EXPECT_FALSE(error.isEmpty());
    EXPECT_FALSE(FileBookmark::resolve("not json"));
    EXPECT_FALSE(FileBookmark::resolve("{\"device\": \"1\"}"));
}

} // namespace
