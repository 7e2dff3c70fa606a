#include "store/GridAction.h"

#include "actions/ActionFileParser.h"
#include "actions/ActionOptionSchemas.h"
#include "builtin/ActionInfo.h"
#include "core/NotificationCenter.h"
#include "core/SecretStore.h"
#include "platform/FileBookmark.h"
#include "store/GridStoreHooks.h"
#include "store/Icons.h"
#include "tests/store/StoreTestSupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

ActionInfo info(const QString& name, const QString& sheet, bool selectedItemNameAndIcon,
                const QString& iconPath = {})
{
    ActionInfo entry;
    entry.name = name;
    entry.optionsNib = sheet;
    entry.usesSelectedItemNameAndIcon = selectedItemNameAndIcon;
    entry.iconPath = iconPath;
    entry.handles = {ActionInfo::Handles::Files};
    entry.events = {ActionInfo::Event::Dragged};
    return entry;
}

// A store whose every call fails, as a locked or broken secret service does.
class FailingSecretStore : public SecretStore {
public:
    void readSecret(const QString&, const QString&, Done done) override { done(failure()); }
    void writeSecret(const QString&, const QString&, const QByteArray&, Done done) override
    {
        done(failure());
    }
    void deleteSecret(const QString&, const QString&, Done done) override { done(failure()); }

private:
    static Result failure()
    {
        return {Status::Failed, {}, QStringLiteral("The keyring is locked.")};
    }
};

class GridActionTest : public StoreTest {
protected:
    void SetUp() override
    {
        StoreTest::SetUp();
        m_actionIcon = m_engine->home().writeFile(QStringLiteral("res/action-icon.png"),
                                                  QByteArrayLiteral("PNG action"));
        provideBuiltInActions(
            ActionFileParser::shared(),
            {
                info(QStringLiteral("Open Application"), QStringLiteral("ChooseApplication"), true),
                info(QStringLiteral("Move Files"), QStringLiteral("ChooseFolder"), true),
                info(QStringLiteral("Copy Files"), QStringLiteral("ChooseFolder"), true),
                info(QStringLiteral("Open File"), QStringLiteral("ChooseFile"), true),
                info(QStringLiteral("Resize Images"), QStringLiteral("ResizeImages"), false,
                     m_actionIcon),
                info(QStringLiteral("SFTP Upload"), QStringLiteral("ExtendedLogin"), false,
                     m_actionIcon),
                info(QStringLiteral("Drop Bar Text"), {}, false),
            });
        ActionFileParser::shared().invalidateActionsCache();
        ActionOptionSchemas::registerSchema(
            {QStringLiteral("ExtendedLogin"), true, QStringLiteral("password"), {}, {}, {}});
    }
    void TearDown() override
    {
        ActionOptionSchemas::unregisterSchema(QStringLiteral("ExtendedLogin"));
        provideBuiltInActions(ActionFileParser::shared(), {});
        ActionFileParser::shared().invalidateActionsCache();
        StoreTest::TearDown();
    }
    QString categoryName(CategoryId id)
    {
        return value(QStringLiteral("SELECT name FROM categories WHERE id = %1").arg(id));
    }
    QString home(const QString& relative) const
    {
        return QDir(m_engine->home().path()).filePath(relative);
    }
    QString folder(const QString& relative)
    {
        QDir().mkpath(home(relative));
        return home(relative);
    }
    GridActionPtr saved(const QString& type, const QString& name,
                        const GridActionVariables& variables = {})
    {
        auto action = std::make_shared<GridAction>();
        action->type = type;
        action->name = name;
        action->categoryId = 1;
        action->extraVariables = variables;
        EXPECT_NE(action->create(), 0);
        return action;
    }

    QString m_actionIcon;
};

// --- Building from a dropped path

TEST_F(GridActionTest, ApplicationsGoToTheAppsCategory)
{
    const QString entry = m_engine->home().writeFile(
        QStringLiteral("apps/org.example.Editor.desktop"),
        "[Desktop Entry]\nType=Application\nName=Text Editor\nName[de]=Texteditor\n"
        "Exec=editor %F\n");
    engine().icons.setWorkspaceIconProvider(
        [](const QString& path) { return "PNG of " + QFileInfo(path).fileName().toUtf8(); });
    qputenv("LC_ALL", "de_DE.UTF-8");
    const GridActionPtr action = GridAction::initWithPath(entry);
    qunsetenv("LC_ALL");
    ASSERT_TRUE(action);
    EXPECT_EQ(action->type, QStringLiteral("Open Application"));
    EXPECT_EQ(action->name, QStringLiteral("Texteditor"));
    EXPECT_EQ(categoryName(action->categoryId), QStringLiteral("Apps"));
    EXPECT_EQ(action->extraVariables, (GridActionVariables{{QStringLiteral("path"), entry}}));
    EXPECT_EQ(action->icon, QByteArrayLiteral("PNG of org.example.Editor.desktop"));
    EXPECT_EQ(action->servicesKey, QStringLiteral("T"));
    EXPECT_TRUE(action->usingDefaultIcon);

    // An executable is an application named after its file.
    const QString image = m_engine->home().writeFile(QStringLiteral("apps/Krita.AppImage"), "ELF");
    QFile::setPermissions(image, QFile::ReadOwner | QFile::ExeOwner);
    const GridActionPtr program = GridAction::initWithPath(image);
    ASSERT_TRUE(program);
    EXPECT_EQ(program->type, QStringLiteral("Open Application"));
    EXPECT_EQ(program->name, QStringLiteral("Krita"));
}

TEST_F(GridActionTest, AFolderIsMovedOrCopiedWithTheOptionKeyAndPlacedLast)
{
    const QString path = folder(QStringLiteral("Photos.2024"));
    bool optionHeld = false;
    engine().storeHooks.optionKeyHeld = [&] { return optionHeld; };
    const GridActionPtr move = GridAction::initWithPath(path);
    optionHeld = true;
    const GridActionPtr copy = GridAction::initWithPath(path);
    ASSERT_TRUE(move && copy);
    EXPECT_EQ(move->type, QStringLiteral("Move Files"));
    EXPECT_EQ(copy->type, QStringLiteral("Copy Files"));
    for (const GridActionPtr& action : {move, copy}) {
        EXPECT_EQ(categoryName(action->categoryId), QStringLiteral("Folders"));
        EXPECT_EQ(action->name, QStringLiteral("Photos.2024")); // a folder keeps its dots
        EXPECT_EQ(action->position, 0);
    }
    ASSERT_NE(move->create(), 0);
    EXPECT_EQ(GridAction::initWithPath(folder(QStringLiteral("B")))->position, 1);
}

TEST_F(GridActionTest, AGivenActionKeepsItsOwnNameAndIconAndAFileShowsItsPreview)
{
    const QString file = m_engine->home().writeFile(QStringLiteral("report.final.pdf"), "pdf");
    const auto actionOf = [](const char* type) {
        return ActionFileParser::shared().getActionWithType(QString::fromLatin1(type));
    };
    const GridActionPtr resize = GridAction::initWithPath(file, actionOf("Resize Images"));
    ASSERT_TRUE(resize);
    EXPECT_EQ(resize->type, QStringLiteral("Resize Images"));
    EXPECT_EQ(resize->name, QStringLiteral("Resize Images"));
    EXPECT_EQ(resize->icon, QByteArrayLiteral("PNG action"));
    EXPECT_EQ(categoryName(resize->categoryId), QStringLiteral("Actions"));
    const CategoryId chosen = db().addCategoryWithName(QStringLiteral("Mine"), 1);
    EXPECT_EQ(GridAction::initWithPath(file, actionOf("Resize Images"), false, chosen)->categoryId,
              chosen);

    int askedSize = 0;
    engine().icons.setPreviewProvider([&](const QString& path, int size) {
        askedSize = size;
        return path == file ? QByteArrayLiteral("preview") : QByteArray();
    });
    const GridActionPtr open = GridAction::initWithPath(file, actionOf("Open File"));
    ASSERT_TRUE(open);
    EXPECT_EQ(open->icon, QByteArrayLiteral("preview"));
    EXPECT_EQ(askedSize, 512);
    EXPECT_EQ(open->name, QStringLiteral("report.final"));
    // "Open File" is a core file action by no list: it goes to the Actions category.
    EXPECT_EQ(categoryName(open->categoryId), QStringLiteral("Actions"));
}

TEST_F(GridActionTest, RefusesWhatItCannotUse)
{
    LogCapture log;
    const QString file = m_engine->home().writeFile(QStringLiteral("notes.txt"), "text");
    EXPECT_FALSE(GridAction::initWithPath(home(QStringLiteral("missing"))));
    EXPECT_FALSE(GridAction::initWithPath(file)); // a plain file and no action
    auto unknown = std::make_shared<ActionFile>();
    unknown->actionName = QStringLiteral("Nope");
    EXPECT_FALSE(GridAction::initWithPath(file, unknown));
    EXPECT_TRUE(log.contains(
        QStringLiteral("Cannot find action with type 'Nope' in GridAction::initWithPath")));
}

// --- Services keys

TEST_F(GridActionTest, AServicesKeyIsTheFirstFreeLetterOrDigitOfTheGrid)
{
    QStringList every;
    for (const QChar c : QStringLiteral("ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789")) {
        every << QString(c);
    }
    struct Row {
        const char* name;
        QStringList takenInGrid;
        QStringList takenElsewhere;
        const char* expected;
    };
    const Row rows[] = {
        {"zip it", {"Z"}, {}, "I"},
        {"   ", {}, {}, "A"},
        {"zip it", {}, {}, "Z"},
        {"zip", {}, {"Z"}, "Z"},
        {"ab", {"A", "B"}, {}, "C"},
        {"9 lives", {}, {}, "9"},
        {"#1", {}, {}, "1"},
        {"", every, {}, ""},
        {"abc", every, {}, ""},
        {"\xc3\xa9t\xc3\xa9", {"T"}, {}, "A"}, // letters outside the list are skipped
    };
    for (const Row& row : rows) {
        const GridId grid = db().addGridWithName(QStringLiteral("Keys"));
        const GridId elsewhere = db().addGridWithName(QStringLiteral("Elsewhere"));
        for (const auto& [keys, target] :
             {std::pair{row.takenInGrid, grid}, std::pair{row.takenElsewhere, elsewhere}}) {
            const CategoryId category = db().addCategoryWithName(QStringLiteral("C"), target);
            for (const QString& key : keys) {
                GridAction taken;
                taken.name = key;
                taken.type = QStringLiteral("Move Files");
                taken.servicesKey = key;
                taken.categoryId = category;
                ASSERT_NE(db().addAction(taken, {}), 0);
            }
        }
        EXPECT_EQ(GridAction::defaultServicesKeyForName(QString::fromUtf8(row.name), grid),
                  QString::fromUtf8(row.expected))
            << row.name;
    }
}

TEST_F(GridActionTest, KeysAreFreePerGridAndAnActionNeverCollidesWithItself)
{
    const GridActionPtr action = saved(QStringLiteral("Move Files"), QStringLiteral("Mover"));
    ASSERT_TRUE(db().updateServicesKeyForActionId(action->aId, QStringLiteral("M")));
    EXPECT_TRUE(action->isServicesKeyAvailable(QStringLiteral("M")));
    GridAction other;
    other.categoryId = 2; // same grid, other category
    EXPECT_FALSE(other.isServicesKeyAvailable(QStringLiteral("M")));
    other.categoryId =
        db().addCategoryWithName(QStringLiteral("X"), db().addGridWithName(QStringLiteral("G2")));
    EXPECT_TRUE(other.isServicesKeyAvailable(QStringLiteral("M")));
}

// --- Record, saving and removing

TEST_F(GridActionTest, CreatingAndUpdatingStoreRowVariablesAndIcon)
{
    int prepared = 0;
    engine().storeHooks.prepareGrid = [&] { ++prepared; };
    NotificationCount saved(engine().notifications, Notifications::GridActionPositionsSaved);
    GridActionPtr action = GridAction::initWithPath(folder(QStringLiteral("Inbox")));
    ASSERT_TRUE(action);
    action->icon = QByteArrayLiteral("icon bytes");
    const ActionId id = action->createWithReload(true);
    ASSERT_NE(id, 0);
    EXPECT_EQ(action->aId, id);
    EXPECT_EQ(prepared, 1);
    EXPECT_EQ(saved.count, 1);
    const GridActionPtr read = db().getGridActionWithId(id);
    ASSERT_TRUE(read);
    EXPECT_EQ(read->extraVariables, action->extraVariables);
    EXPECT_FALSE(read->extraVariables.contains(QStringLiteral("network_volume")));
    EXPECT_EQ(read->icon, QByteArrayLiteral("icon bytes"));
    EXPECT_TRUE(QFileInfo::exists(engine().icons.iconPathForId(id)));
    action->create(); // without reload
    EXPECT_EQ(prepared, 1);

    read->extraVariables = {{QStringLiteral("c"), QStringLiteral("3")}};
    read->name = QStringLiteral("Moved");
    ASSERT_TRUE(read->update());
    EXPECT_EQ(db().getGridActionWithId(id)->name, QStringLiteral("Moved"));
    EXPECT_EQ(db().getExtraVariablesForActionId(id), read->extraVariables);
}

TEST_F(GridActionTest, RemovingDeletesRowVariablesIconAndLoginButNoBundledIcon)
{
    int prepared = 0;
    int positions = 0;
    engine().storeHooks.prepareGrid = [&] { ++prepared; };
    engine().storeHooks.saveGridActionPositions = [&] { ++positions; };
    const GridActionPtr action = saved(QStringLiteral("SFTP Upload"), QStringLiteral("Up"),
                                       {{QStringLiteral("server"), QStringLiteral("h")}});
    const GridActionPtr bundled = saved(QStringLiteral("Move Files"), QStringLiteral("B"));
    bundled->bundledIcon = QStringLiteral("bundled");
    const GridActionPtr bar = saved(QStringLiteral("Drop Bar Text"), QStringLiteral("Texts"));
    ASSERT_TRUE(engine().icons.saveIcon("i", action->aId));
    ASSERT_TRUE(engine().icons.saveIcon("i", bundled->aId));
    ASSERT_TRUE(storePassword(*action, QStringLiteral("secret")));
    NotificationCount saved(engine().notifications, Notifications::GridActionPositionsSaved);
    action->remove();
    EXPECT_FALSE(db().getGridActionWithId(action->aId));
    EXPECT_TRUE(db().getExtraVariablesForActionId(action->aId).isEmpty());
    EXPECT_FALSE(QFileInfo::exists(engine().icons.iconPathForId(action->aId)));
    EXPECT_FALSE(retrievePassword(*action, false, false));
    EXPECT_EQ(prepared, 1);
    EXPECT_EQ(positions, 1);
    EXPECT_EQ(saved.count, 1);
    bundled->remove();
    EXPECT_TRUE(QFileInfo::exists(engine().icons.iconPathForId(bundled->aId)));

    // A Drop Bar tile is left to the Drop Bar controller; the grid is rebuilt a turn later.
    int handedOver = 0;
    engine().storeHooks.removeDropbarItems = [&](const GridAction& a) {
        handedOver += a.type == QLatin1String("Drop Bar Text");
    };
    prepared = 0;
    bar->remove();
    EXPECT_TRUE(db().getGridActionWithId(bar->aId));
    EXPECT_EQ(handedOver, 1);
    EXPECT_EQ(prepared, 0);
    processEvents();
    EXPECT_EQ(prepared, 1);
}

// --- Network volumes, bookmarks and missing paths

TEST_F(GridActionTest, APathOnANetworkShareIsFlaggedAndKeepsItsFlagWhenUnmounted)
{
    const QString share = folder(QStringLiteral("mnt/share"));
    mountAs(share, "cifs");
    auto action = GridAction::initWithPath(share);
    ASSERT_TRUE(action);
    action->flagNetworkVolume();
    EXPECT_EQ(action->extraVariables.value(QStringLiteral("network_volume")).toString(),
              QStringLiteral("1"));

    QDir(share).removeRecursively(); // the share is gone
    action->flagNetworkVolume();
    EXPECT_TRUE(action->isNetworkVolume());
    action->extraVariables.insert(QStringLiteral("path"), folder(QStringLiteral("local")));
    action->flagNetworkVolume();
    EXPECT_FALSE(action->extraVariables.contains(QStringLiteral("network_volume")));

    // Actions without a chosen folder are not looked at.
    GridAction resize;
    resize.type = QStringLiteral("Resize Images");
    resize.extraVariables = {{QStringLiteral("path"), folder(QStringLiteral("mnt"))},
                             {QStringLiteral("network_volume"), QStringLiteral("1")}};
    resize.flagNetworkVolume();
    EXPECT_TRUE(resize.isNetworkVolume());

    // A missing path on a share counts as missing only when asked to include shares.
    for (const auto& [exists, network, missing, includingNetwork] :
         {std::tuple{true, false, false, false},
          {false, false, true, true},
          {false, true, false, true},
          {true, true, false, false}}) {
        GridAction each;
        each.extraVariables.insert(QStringLiteral("path"), exists ? folder(QStringLiteral("here"))
                                                                  : home(QStringLiteral("gone")));
        if (network) {
            each.extraVariables.insert(QStringLiteral("network_volume"), QStringLiteral("1"));
        }
        EXPECT_EQ(each.isReferencedPathMissing(), missing) << exists << network;
        EXPECT_EQ(each.isReferencedPathMissingIncludingNetworkVolumes(), includingNetwork)
            << exists << network;
    }
}

TEST_F(GridActionTest, BookmarksRecordBothChosenPaths)
{
    const QString first = folder(QStringLiteral("first"));
    const QString second = m_engine->home().writeFile(QStringLiteral("second.key"), "k");
    GridAction action;
    action.type = QStringLiteral("SFTP Upload"); // its sheet is one with bookmarks
    action.extraVariables = {{QStringLiteral("path"), first},
                             {QStringLiteral("path_secondary"), second}};
    action.updateScopedBookmark();
    const auto resolved = FileBookmark::resolve(
        action.extraVariables.value(QStringLiteral("scoped_bookmark")).toByteArray());
    const auto resolvedSecond = FileBookmark::resolve(
        action.extraVariables.value(QStringLiteral("scoped_bookmark_secondary")).toByteArray());
    ASSERT_TRUE(resolved && resolvedSecond);
    EXPECT_EQ(resolved->path, first);
    EXPECT_EQ(resolvedSecond->path, second);
    EXPECT_FALSE(resolved->missing || resolved->replaced);

    // Not for a sheet without bookmarks, nor for a path that is not there.
    for (const auto& [type, path] :
         {std::pair{"Move to Trash", first}, {"Resize Images", home(QStringLiteral("absent"))}}) {
        GridAction other;
        other.type = QString::fromLatin1(type);
        other.extraVariables = {{QStringLiteral("path"), path}};
        other.updateScopedBookmark();
        EXPECT_FALSE(other.extraVariables.contains(QStringLiteral("scoped_bookmark"))) << type;
    }
    EXPECT_TRUE(alerts().isEmpty());
}

// --- Secrets

TEST_F(GridActionTest, APasswordComesBackAsTheSheetsVariable)
{
    const GridActionPtr action =
        saved(QStringLiteral("SFTP Upload"), QStringLiteral("Up"),
              {{QStringLiteral("server"), QStringLiteral("sftp.example.org")},
               {QStringLiteral("username"), QStringLiteral("ann")}});
    EXPECT_EQ(action->keychainServiceName(),
              QStringLiteral("Skelvo: SFTP Upload (sftp.example.org)"));
    EXPECT_EQ(action->keychainAccountName(), QStringLiteral("ann"));
    EXPECT_FALSE(retrievePassword(*action, true, true)); // none stored yet
    EXPECT_TRUE(alerts().isEmpty());

    ASSERT_TRUE(storePassword(*action, QStringLiteral("pä ss")));
    ASSERT_TRUE(storePassword(*action, QStringLiteral("phrase"), true));
    EXPECT_EQ(retrievePassword(*action, false, true)->value(QStringLiteral("password")),
              QString::fromLatin1(QStringLiteral("pä ss").toUtf8().toBase64()));
    EXPECT_EQ(retrievePassword(*action, false, false)->value(QStringLiteral("password")),
              QStringLiteral("pä ss"));
    EXPECT_EQ(retrievePassword(*action, false, false, true)->value(QStringLiteral("passphrase")),
              QStringLiteral("phrase"));

    // A blank password needs no secret.
    action->extraVariables.insert(QStringLiteral("blank_password"), QStringLiteral("1"));
    EXPECT_EQ(retrievePassword(*action, true, true),
              (QMap<QString, QString>{{QStringLiteral("password"), QString()}}));
}

TEST_F(GridActionTest, SecretErrorsAreShownOnlyWhenAskedAndNameLoginAndPassphrase)
{
    const GridActionPtr action = saved(QStringLiteral("SFTP Upload"), QStringLiteral("Up"));
    m_engine->secrets().use(std::make_shared<FailingSecretStore>());
    EXPECT_FALSE(retrievePassword(*action, false, true));
    EXPECT_TRUE(alerts().isEmpty());
    EXPECT_FALSE(retrievePassword(*action, true, true));
    action->deleteKeychainPassword();
    QStringList shown;
    for (const Alert& alert : alerts()) {
        shown << alert.title + u'|' + alert.message;
    }
    const auto error = [](const char* verb, const char* what, const char* suffix) {
        return QStringLiteral("Error %1ing item from Keychain|Failed to %1e %2 from keychain for "
                              "service Skelvo: SFTP Upload%3 with account name default.\n\nThe "
                              "keyring is locked.")
            .arg(QString::fromLatin1(verb), QString::fromLatin1(what), QString::fromLatin1(suffix));
    };
    EXPECT_EQ(shown, (QStringList{error("retriev", "login", ""), error("delet", "login", ""),
                                  error("delet", "passphrase", " passphrase")}));
}

TEST_F(GridActionTest, ASharedLoginIsKeptUntilItsLastAction)
{
    const GridActionVariables login{{QStringLiteral("server"), QStringLiteral("h")},
                                    {QStringLiteral("username"), QStringLiteral("u")}};
    const GridActionPtr first = saved(QStringLiteral("SFTP Upload"), QStringLiteral("One"), login);
    const GridActionPtr second = saved(QStringLiteral("SFTP Upload"), QStringLiteral("Two"), login);
    // Another user on the same server does not keep the login.
    saved(QStringLiteral("SFTP Upload"), QStringLiteral("Three"),
          {{QStringLiteral("server"), QStringLiteral("h")},
           {QStringLiteral("username"), QStringLiteral("other")}});
    ASSERT_TRUE(storePassword(*first, QStringLiteral("pw")));
    first->remove();
    EXPECT_TRUE(retrievePassword(*second, false, false));
    second->remove();
    EXPECT_FALSE(retrievePassword(*second, false, false));
    EXPECT_TRUE(alerts().isEmpty());
}

} // namespace
