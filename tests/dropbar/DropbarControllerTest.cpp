// The Drop Bar controller against the real grid store, with fake desktop and windows.
#include "dropbar/DropbarController.h"

#include "core/Settings.h"
#include "core/SupportPaths.h"
#include "dropbar/SavedText.h"
#include "store/GridDatabase.h"
#include "tests/support/EventLoop.h"
#include "tests/support/TestEngine.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include <gtest/gtest.h>

namespace {

class DropbarControllerTest : public testing::Test {
protected:
    void SetUp() override
    {
        ensureCoreApplication();
        engine = std::make_unique<TestEngine>();
        ASSERT_TRUE(db().loadDatabase());
        (*engine)->settings.setValue(Settings::NotificationsEnabled, true);
        grid = db().selectedGridId();
    }

    static GridDatabase& db() { return GridDatabase::sharedGridDatabase(); }
    DropbarController& bar() { return *(*engine)->dropbars; }
    QList<UserNotification>& notifications() { return engine->desktop().notifications; }
    QString file(const QString& name) const
    {
        return engine->home().writeFile(QStringLiteral("files/") + name, name.toUtf8());
    }
    QStringList files(const QStringList& names) const
    {
        QStringList paths;
        for (const QString& name : names) {
            paths << file(name);
        }
        return paths;
    }
    DropbarId add(const QStringList& paths, DropbarTarget target = {})
    {
        DropbarId id = 0;
        bar().addURLs(paths, {}, target,
                      [&](bool added, DropbarId dbId) { id = added ? dbId : 0; });
        return id;
    }
    static QByteArray contents(const QString& path)
    {
        QFile in(path);
        return in.open(QIODevice::ReadOnly) ? in.readAll() : QByteArray("(unreadable)");
    }
    DropbarItemId firstItemOf(DropbarId dbId)
    {
        return db().getItemsForDropbar(dbId).value(0).value(QStringLiteral("id")).toLongLong();
    }
    // Each stack of the grid as the store holds it: its item names joined by "|".
    static QStringList storedRow(GridId gridId)
    {
        QStringList row;
        for (const SqlRow& dropbar : db().getDropbarsForGrid(gridId)) {
            QStringList names;
            for (const SqlRow& item :
                 db().getItemsForDropbar(dropbar.value(QStringLiteral("id")).toLongLong())) {
                names << DropbarItem::fromRow(item).displayName();
            }
            row << names.join(u'|');
        }
        return row;
    }

    std::unique_ptr<TestEngine> engine;
    GridId grid = 0;
};

TEST_F(DropbarControllerTest, AddedNotificationsAndCopiedStacks)
{
    const struct {
        QStringList names;
        const char *title, *body;
    } added[] = {
        {{"a.txt"}, "Item Added to Drop Bar", "a.txt has been added to Drop Bar"},
        {{"a.txt", "b.txt"},
         "Items Added to Drop Bar",
         "a.txt and 1 other have been added to Drop Bar"},
        {{"a.txt", "b.txt", "c.txt"},
         "Items Added to Drop Bar",
         "a.txt and 2 others have been added to Drop Bar"},
    };
    for (const auto& row : added) {
        notifications().clear();
        const DropbarId id = add(files(row.names));
        ASSERT_TRUE(id);
        ASSERT_EQ(notifications().size(), 1) << row.body;
        EXPECT_EQ(notifications().first().title, QString::fromUtf8(row.title));
        EXPECT_EQ(notifications().first().body, QString::fromUtf8(row.body));
        EXPECT_EQ(notifications().first().dropbarDatabaseId, id);
    }
    (*engine)->settings.setValue(Settings::NotificationsEnabled, false);
    notifications().clear();
    EXPECT_TRUE(add(files({"d.txt"})));
    EXPECT_TRUE(notifications().isEmpty());
    (*engine)->settings.setValue(Settings::NotificationsEnabled, true);

    const QString a = file("a.txt"), b = file("b.txt");
    const DropbarId named = add({a, b});
    ASSERT_TRUE(bar().setDropbarNameWithaId(named, QStringLiteral("Mine")));
    bar().addItems(
        {DropbarItem::ofText(QStringLiteral("one")), DropbarItem::ofText(QStringLiteral("two"))},
        {}, {});
    const DropbarId text = bar().dropbars().last()->dbId;
    const struct {
        DropbarId dbId;
        const char* what;
        QString clipboard;
    } copies[] = {
        {add({a}), "Item", QStringLiteral("files:") + a},
        {add({a, b}), "Items", QStringLiteral("files:%1,%2").arg(a, b)},
        {named, "Stack", QStringLiteral("files:%1,%2").arg(a, b)},
        {text, "Text", QStringLiteral("text:one\ntwo")},
    };
    for (const auto& row : copies) {
        notifications().clear();
        ASSERT_TRUE(bar().copyToClipboardFromDropBar(row.dbId)) << row.what;
        EXPECT_EQ(engine->desktop().clipboard.last(), row.clipboard);
        ASSERT_EQ(notifications().size(), 1);
        EXPECT_EQ(notifications().first().title,
                  QStringLiteral("Drop Bar %1 Copied to Clipboard").arg(QLatin1String(row.what)));
    }
}

TEST_F(DropbarControllerTest, StackOperationsReachTheStore)
{
    const GridId other = db().addGridWithName(QStringLiteral("Other"));
    ASSERT_TRUE(other);
    EXPECT_FALSE(bar().moveAllDropbarsToGrid(other)); // only the standing slot
    EXPECT_TRUE(storedRow(other).isEmpty());

    // The separated stacks take the place of their stack, before the one that followed it.
    const DropbarId abc = add(files({"a", "b", "c"}));
    add(files({"d"}));
    ASSERT_TRUE(bar().setDropbarNameWithaId(abc, QStringLiteral("Trip")));
    ASSERT_TRUE(bar().seperateDropbarItemsWithaId(abc));
    EXPECT_EQ(storedRow(grid), QStringList({"a", "b", "c", "d"}));
    for (int slot = 1; slot <= 4; ++slot) {
        EXPECT_EQ(bar().dropbars().at(slot)->name, slot < 4 ? "Trip" : "") << slot;
    }
    ASSERT_EQ(bar().numDropbars(), 4);
    add(files({"e"}), {.slot = 4, .gridId = {}});
    ASSERT_TRUE(bar().combineAllItemsToStack());
    EXPECT_EQ(storedRow(grid), QStringList{"a|b|c|d|e"});
    EXPECT_EQ(db().getDropbarsForGrid(grid).value(0).value(QStringLiteral("title")),
              QStringLiteral("Combined Stack"));

    const DropbarId f = add(files({"f"}));
    const DropbarId g = add(files({"g"}));
    // A grid that is not there would hide the stacks for good.
    EXPECT_FALSE(bar().moveDropbarWithaId(f, other + 1));
    EXPECT_FALSE(bar().moveAllDropbarsToGrid(other + 1));
    EXPECT_EQ(storedRow(grid), QStringList({"a|b|c|d|e", "f", "g"}));
    ASSERT_TRUE(bar().moveDropbarWithaId(f, other));
    EXPECT_EQ(storedRow(other), QStringList{"f"});
    ASSERT_TRUE(bar().moveAllDropbarsToGrid(other));
    EXPECT_EQ(storedRow(other), QStringList({"f", "a|b|c|d|e", "g"}));
    EXPECT_TRUE(storedRow(grid).isEmpty());
    EXPECT_EQ(bar().numDropbars(), 0);

    ASSERT_TRUE(bar().revealDropbarWithDatabaseId(g));
    EXPECT_EQ(db().selectedGridId(), other);
    EXPECT_EQ(engine->windows().revealedDropbars, QList<qint64>{Identifiers::FirstDropbarId + 3});

    // The last item takes an unlocked stack with it; a locked one stays, empty.
    for (const bool locked : {false, true}) {
        const DropbarId dbId = add(files({"h"}));
        ASSERT_TRUE(bar().setDropbarLockingWithaId(dbId, locked));
        ASSERT_TRUE(bar().removeItem(firstItemOf(dbId), dbId));
        EXPECT_EQ(db().gridIdForDropbar(dbId), locked ? other : 0) << locked;
        EXPECT_TRUE(db().getItemsForDropbar(dbId).isEmpty());
        EXPECT_EQ(bar().slotOfDropbar(dbId).has_value(), locked);
    }
}

TEST_F(DropbarControllerTest, DropsThroughTheDispatcher)
{
    DropbarDispatcher& dispatcher = bar();
    const auto drop = [&](const DragInfo& drag, qint64 tileId) {
        return dispatcher.addItemsFromDrag(drag, tileId, drag.fromWithinSkelvo, false);
    };
    const qint64 standing = Identifiers::FirstDropbarId;
    DragInfo drag;
    drag.filePaths = files({"a", "b"});
    ASSERT_TRUE(drop(drag, standing));
    drag.filePaths = files({"c"});
    ASSERT_TRUE(drop(drag, standing + 1));
    DragInfo text;
    text.text = QStringLiteral("Hello drop");
    ASSERT_TRUE(drop(text, standing));
    DragInfo image;
    image.imageData = QByteArrayLiteral("\x89PNG data");
    ASSERT_TRUE(drop(image, standing));
    EXPECT_EQ(storedRow(grid), QStringList({"a|b|c", "Hello drop", "Image.png"}));

    const QString textPath = bar().dropbars().at(2)->items.first().path;
    EXPECT_EQ(QFileInfo(textPath).fileName(), QStringLiteral("Hello drop.txt"));
    EXPECT_EQ(contents(textPath), QByteArrayLiteral("Hello drop"));
    const DropbarId imageStack = bar().dropbars().at(3)->dbId;
    const QString imagePath = bar().dropbars().at(3)->items.first().path;
    EXPECT_TRUE(QRegularExpression(QStringLiteral("^SkFilePromise-[^/]+/Image\\.png$"))
                    .match(QDir(SupportPaths::promisedFilesDirectory()).relativeFilePath(imagePath))
                    .hasMatch())
        << imagePath;
    EXPECT_EQ(contents(imagePath), image.imageData);

    // A stack dragged onto another brings its items; its own Drop Bar goes.
    DragInfo fromStack;
    fromStack.filePaths = {imagePath};
    fromStack.fromWithinSkelvo = true;
    fromStack.sourceDropbarId = imageStack;
    ASSERT_TRUE(drop(fromStack, standing + 1));
    EXPECT_EQ(storedRow(grid), QStringList({"a|b|c|Image.png", "Hello drop"}));
    EXPECT_EQ(db().gridIdForDropbar(imageStack), 0);
    EXPECT_TRUE(QFileInfo::exists(imagePath));
    EXPECT_FALSE(drop(fromStack, standing));
    EXPECT_EQ(storedRow(grid), QStringList({"a|b|c|Image.png", "Hello drop"}));
}

TEST_F(DropbarControllerTest, RemovedItemsTakeOnlyTheirUnreferencedFoldersAlong)
{
    const auto write = [](const QString& folder, const QString& name) {
        QFile out(QDir(folder).filePath(name));
        EXPECT_TRUE(out.open(QIODevice::WriteOnly) && out.write("x") == 1);
        return out.fileName();
    };
    for (const QString& folder : {SupportPaths::uniquePromisedFilesDirectory(),
                                  SupportPaths::uniqueActionOutputDirectory()}) {
        const DropbarId first = add({write(folder, QStringLiteral("x.png"))});
        const DropbarId second = add({write(folder, QStringLiteral("y.png"))});
        ASSERT_TRUE(bar().removeItem(firstItemOf(first), first));
        EXPECT_TRUE(QFileInfo::exists(folder + QStringLiteral("/y.png"))) << folder;
        ASSERT_TRUE(bar().removeItem(firstItemOf(second), second));
        EXPECT_FALSE(QFileInfo::exists(folder)) << folder;
    }
    const QString mine = file("mine.png");
    const DropbarId own = add({mine});
    ASSERT_TRUE(bar().removeItem(firstItemOf(own), own));
    EXPECT_TRUE(QFileInfo::exists(mine));

    // At start-up: what no item refers to goes.
    const QString keptFolder = SupportPaths::uniquePromisedFilesDirectory();
    add({write(keptFolder, QStringLiteral("k.png"))});
    const QString strayFolder = SupportPaths::uniquePromisedFilesDirectory();
    write(strayFolder, QStringLiteral("s.png"));
    bar().addItems({DropbarItem::ofText(QStringLiteral("keep me"))}, {}, {});
    const QString keptText = bar().dropbars().last()->items.first().path;
    const QString strayText = write(SupportPaths::savedTextDirectory(), QStringLiteral("s.txt"));
    bar().removeLeftovers();
    EXPECT_TRUE(QFileInfo::exists(keptFolder));
    EXPECT_FALSE(QFileInfo::exists(strayFolder));
    EXPECT_TRUE(QFileInfo::exists(keptText));
    EXPECT_FALSE(QFileInfo::exists(strayText));
}

TEST_F(DropbarControllerTest, FoldersAndApplicationsInAStack)
{
    const QString folder = engine->home().path() + QStringLiteral("/files/folder");
    ASSERT_TRUE(QDir().mkpath(folder));
    const std::pair<QStringList, bool> rows[] = {
        {{folder}, true},
        {{file("Editor.desktop")}, true},
        {{file("plain.txt")}, false},
        {{file("plain.txt"), folder}, true},
    };
    for (const auto& [paths, expected] : rows) {
        EXPECT_EQ(bar().dropbarContainsFoldersOrAppsWithaId(add(paths)), expected) << paths.first();
    }
}

TEST_F(DropbarControllerTest, AnAddStartedByAnotherWaitsForIt)
{
    QStringList events;
    bar().addURLs(files({"a1", "a2"}), {}, {}, [&](bool, DropbarId dbId) {
        bar().addURLs(files({"b"}), {}, {.slot = 1, .gridId = {}}, [&](bool added, DropbarId) {
            events << QStringLiteral("second %1").arg(added);
        });
        events << QStringLiteral("first %1").arg(bar().numItemsAtDropbarWithaId(dbId));
    });
    EXPECT_EQ(events, QStringList({"first 2", "second 1"}));
    EXPECT_EQ(storedRow(grid), QStringList{"a1|a2|b"});
}

TEST(SavedTextTest, BaseNames)
{
    const QDateTime now(QDate(2026, 11, 23), QTime(14, 5, 9));
    const QString blank = QStringLiteral("Text Saved at 11-23-2026 02-05-09 PM");
    const std::pair<QString, QString> rows[] = {
        {QStringLiteral("  Hello world \n"), QStringLiteral("Hello world")},
        {QString(60, u'a'), QString(50, u'a')},
        {QStringLiteral("a/b\\c:d"), QStringLiteral("a-b-c-d")},
        {QStringLiteral("line one\r\nline\ttwo\n"), QStringLiteral("line one  line two")},
        {QStringLiteral("..hidden"), QStringLiteral("hidden")},
        {QStringLiteral(". x"), QStringLiteral("x")},
        {QStringLiteral(" \n\t "), blank},
        {QStringLiteral("..."), blank},
        // The cut never splits a character that needs two UTF-16 units.
        {QString(49, u'a') + QStringLiteral("\U0001F600"), QString(49, u'a')},
    };
    for (const auto& [text, expected] : rows) {
        EXPECT_EQ(SavedText::baseNameForText(text, now), expected) << text;
    }
}

} // namespace
