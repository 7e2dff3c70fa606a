// The saved form of a monitored folder and of the list under "MonitoredFolders".
#include "monitor/MonitoredFolder.h"

#include "tests/support/TestHome.h"

#include <QJsonDocument>

#include <gtest/gtest.h>

namespace {

QJsonObject validEntry()
{
    MonitoredFolder folder;
    folder.id = QUuid::createUuid();
    folder.path = QStringLiteral("/home/u/In");
    folder.bookmark = QByteArray("{\"path\":\"/home/u/In\"}\0\xff", 23);
    folder.actionIDs = {5, 9};
    folder.dropBarGridID = 2;
    folder.confirmBeforeActions = true;
    return folder.toJson();
}

TEST(MonitoredFolderTest, RoundTripsWithTheCodingKeysInOrder)
{
    const QJsonObject json = validEntry();
    const auto folder = MonitoredFolder::fromJson(json);
    ASSERT_TRUE(folder);
    EXPECT_EQ(folder->toJson(), json);
    EXPECT_EQ(folder->bookmark, QByteArray("{\"path\":\"/home/u/In\"}\0\xff", 23));
    EXPECT_EQ(json.value("bookmark").toString(), QString::fromLatin1(folder->bookmark.toBase64()));
    MonitoredFolder unset = *folder;
    unset.dropBarGridID.reset();
    EXPECT_FALSE(unset.toJson().contains("dropBarGridID"));

    const QJsonArray list = MonitoredFolder::listToJson({*folder, unset});
    // The list is read the same from the array and from its text.
    const QString text = QString::fromUtf8(QJsonDocument(list).toJson());
    EXPECT_EQ(MonitoredFolder::listFromJson(list), (QList<MonitoredFolder>{*folder, unset}));
    EXPECT_EQ(MonitoredFolder::listFromJson(text), (QList<MonitoredFolder>{*folder, unset}));
}

TEST(MonitoredFolderTest, OneBadEntryLeavesTheListEmptyAndIsLogged)
{
    const struct {
        const char* key;
        QJsonValue value;
    } rows[] = {
        {"id", QStringLiteral("not-a-uuid")},
        {"path", QString()},
        {"bookmark", 12},
        {"isEnabled", QStringLiteral("yes")},
        {"actionIDs", QJsonArray{1, "two"}},
        {"actionIDs", 1.5},
        {"dropBarGridID", 2.5},
        {"confirmBeforeActions", 1},
    };
    for (const auto& row : rows) {
        QJsonObject bad = validEntry();
        bad.insert(QString::fromLatin1(row.key), row.value);
        LogCapture log;
        EXPECT_TRUE(MonitoredFolder::listFromJson(QJsonArray{validEntry(), bad}).isEmpty())
            << row.key;
        EXPECT_TRUE(log.contains("Folder Monitor: unable to load saved folders: ")) << row.key;
    }
    LogCapture log;
    EXPECT_TRUE(MonitoredFolder::listFromJson(QStringLiteral("[{")).isEmpty());
    EXPECT_TRUE(MonitoredFolder::listFromJson(QJsonObject()).isEmpty());
    EXPECT_EQ(log.lines().size(), 2);
    EXPECT_TRUE(MonitoredFolder::listFromJson(QJsonValue()).isEmpty());
    EXPECT_EQ(log.lines().size(), 2);
}

} // namespace
