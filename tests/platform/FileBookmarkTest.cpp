#include "platform/FileBookmark.h"

#include "tests/support/TestHome.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

namespace {

// What happens to "chosen" (a file, or a folder) in its folder after it was bookmarked.
struct ChangeCase {
    const char* name;
    bool folder;
    void (*change)(QDir dir);
    const char* foundAs; // the name the bookmark resolves to
    bool moved, missing, replaced;
};

void write(const QDir& dir, const QString& name, const QByteArray& contents)
{
    QFile file(dir.filePath(name));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(contents);
}

const ChangeCase ChangeCases[] = {
    {"rewritten", false, [](QDir dir) { write(dir, "chosen", "two"); }, "chosen", false, false,
     false},
    {"renamed file", false, [](QDir dir) { dir.rename("chosen", ".hidden name"); }, ".hidden name",
     true, false, false},
    {"renamed folder", true, [](QDir dir) { dir.rename("chosen", "renamed"); }, "renamed", true,
     false, false},
    {"deleted", false, [](QDir dir) { dir.remove("chosen"); }, "chosen", false, true, false},
    {"replaced, original gone", false,
     [](QDir dir) {
         write(dir, "other", "three"); // first, so it cannot reuse the freed inode
         dir.remove("chosen");
         dir.rename("other", "chosen");
     },
     "chosen", false, false, true},
    {"replaced, original renamed beside it", false,
     [](QDir dir) {
         dir.rename("chosen", "kept");
         write(dir, "chosen", "three");
     },
     "kept", true, false, false},
};

TEST(FileBookmarkTest, FollowsTheItemWithinItsFolder)
{
    for (const ChangeCase& row : ChangeCases) {
        SCOPED_TRACE(row.name);
        TestHome home;
        QDir dir(home.path());
        if (row.folder) {
            ASSERT_TRUE(dir.mkdir("chosen"));
        } else {
            write(dir, "chosen", "one");
        }
        write(dir, "neighbour", "");
        const auto bookmark = FileBookmark::create(dir.filePath("chosen"));
        ASSERT_TRUE(bookmark);
        row.change(dir);

        const auto resolved = FileBookmark::resolve(*bookmark);
        ASSERT_TRUE(resolved);
        EXPECT_EQ(resolved->path, dir.filePath(row.foundAs));
        EXPECT_EQ(resolved->moved, row.moved);
        EXPECT_EQ(resolved->missing, row.missing);
        EXPECT_EQ(resolved->replaced, row.replaced);
    }
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
