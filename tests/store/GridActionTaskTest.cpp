#include "actions/ActionFileParser.h"
#include "actions/ActionOptionSchemas.h"
#include "builtin/ActionInfo.h"
#include "store/GridAction.h"
#include "tasks/Task.h"
#include "tests/store/StoreTestSupport.h"

namespace {

// Tasks started from a grid action: what the stored record adds to the description file.
class GridActionTaskTest : public StoreTest {
protected:
    void SetUp() override
    {
        StoreTest::SetUp();
        ActionInfo upload;
        upload.name = QStringLiteral("SFTP Upload");
        upload.optionsNib = QStringLiteral("ExtendedLogin");
        upload.handles = {ActionInfo::Handles::Files};
        upload.events = {ActionInfo::Event::Dragged};
        ActionInfo plain = upload;
        plain.name = QStringLiteral("Plain");
        plain.optionsNib = QStringLiteral("ChooseFolder");
        provideBuiltInActions(ActionFileParser::shared(), {upload, plain});
        ActionFileParser::shared().invalidateActionsCache();
        ActionOptionSchemas::registerSchema(
            {QStringLiteral("ExtendedLogin"), true, QStringLiteral("password"), {}, {}, {}});

        m_action = std::make_shared<GridAction>();
        m_action->type = QStringLiteral("SFTP Upload");
        m_action->name = QStringLiteral("Upload");
        m_action->categoryId = 1;
        m_action->extraVariables = {
            {QStringLiteral("server"), QStringLiteral("sftp.example.org")},
            {QStringLiteral("username"), QStringLiteral("ann")},
            {QStringLiteral("remote_path"), QStringLiteral("/var/www")},
            {QStringLiteral("path"), QStringLiteral("/home/ann/key \"id\"")},
            {QStringLiteral("scoped_bookmark"), QByteArray("bookmark")},
        };
        ASSERT_NE(m_action->create(), 0);
    }
    void TearDown() override
    {
        ActionOptionSchemas::unregisterSchema(QStringLiteral("ExtendedLogin"));
        provideBuiltInActions(ActionFileParser::shared(), {});
        ActionFileParser::shared().invalidateActionsCache();
        StoreTest::TearDown();
    }
    std::unique_ptr<Task> taskFor(const GridActionPtr& action)
    {
        auto task = std::make_unique<Task>(engine().taskContext);
        task->gridAction = action->copy();
        task->actionFile = action->actionFile();
        task->event = QStringLiteral("dragged");
        task->items = {QStringLiteral("/tmp/a.txt")};
        task->variables.insert(QStringLiteral("dragged_type"), QStringLiteral("files"));
        bool loaded = false;
        task->loadSecrets([&loaded] { loaded = true; });
        EXPECT_TRUE(loaded) << "the file store answers at once";
        return task;
    }

    GridActionPtr m_action;
};

TEST_F(GridActionTaskTest, TheFileHoldsTheStoredVariablesAndTheBase64Password)
{
    ASSERT_TRUE(storePassword(*m_action, QStringLiteral("s3cret pw")));
    const auto task = taskFor(m_action);
    const auto description = task->generateTaskDescription(false);
    ASSERT_TRUE(description);
    const QString base64 = QString::fromLatin1(QByteArrayLiteral("s3cret pw").toBase64());
    const QString lines[] = {QStringLiteral("VARIABLE: \"password\" \"%1\"\n").arg(base64),
                             QStringLiteral("VARIABLE: \"password_variable\" \"password\"\n"),
                             QStringLiteral("VARIABLE: \"server\" \"sftp.example.org\"\n"),
                             QStringLiteral("VARIABLE: \"remote_path\" \"/var/www\"\n"),
                             QStringLiteral("VARIABLE: \"path\" \"/home/ann/key \\\"id\\\"\"\n")};
    for (const QString& line : lines) {
        EXPECT_TRUE(description->contains(line)) << line.toStdString();
    }
    EXPECT_FALSE(description->contains(QStringLiteral("scoped_bookmark")));

    const auto console = task->generateTaskDescription(true);
    ASSERT_TRUE(console);
    EXPECT_TRUE(
        console->contains(QStringLiteral("VARIABLE: \"password\" \"\u2022\u2022\u2022\u2022\"\n")));
    EXPECT_FALSE(console->contains(base64));
    EXPECT_TRUE(
        console->contains(QStringLiteral("VARIABLE: \"username\" \"\u2022\u2022\u2022\u2022\"\n")));
}

TEST_F(GridActionTaskTest, TheStoredRecordWinsOverTheOneTheTaskWasMadeWith)
{
    ASSERT_TRUE(storePassword(*m_action, QStringLiteral("pw")));
    const auto task = taskFor(m_action);
    m_action->extraVariables.insert(QStringLiteral("remote_path"), QStringLiteral("/srv/new"));
    ASSERT_TRUE(m_action->update());
    const auto description = task->generateTaskDescription(false);
    ASSERT_TRUE(description);
    EXPECT_TRUE(description->contains(QStringLiteral("VARIABLE: \"remote_path\" \"/srv/new\"\n")));
    EXPECT_EQ(task->gridAction->extraVariables.value(QStringLiteral("remote_path")).toString(),
              QStringLiteral("/srv/new"));
    EXPECT_EQ(task->gridActionVariable(QStringLiteral("remote_path")), QStringLiteral("/srv/new"));
}

TEST_F(GridActionTaskTest, ADeletedActionDoesNotRun)
{
    ASSERT_TRUE(storePassword(*m_action, QStringLiteral("pw")));
    auto task = taskFor(m_action);
    bool completed = false;
    task->completion = [&] { completed = true; };
    ASSERT_TRUE(db().deleteAction(m_action->aId));
    EXPECT_FALSE(task->generateTaskDescription(false));
    task->run();
    processEvents();
    EXPECT_TRUE(completed);
    EXPECT_TRUE(task->taskDescriptionPath().isEmpty());
    EXPECT_TRUE(m_engine->windows().editedActions.isEmpty());
}

TEST_F(GridActionTaskTest, AMissingPasswordOpensTheEditWindowAndNothingRuns)
{
    const auto task = taskFor(m_action);
    EXPECT_FALSE(task->generateTaskDescription(false));
    EXPECT_EQ(m_engine->windows().editedActions, QList<ActionId>{m_action->aId});
}

TEST_F(GridActionTaskTest, AnActionWithoutALoginNeedsNoPassword)
{
    GridActionPtr plain = m_action->copy();
    plain->type = QStringLiteral("Plain");
    plain->extraVariables = {{QStringLiteral("path"), QStringLiteral("/data")}};
    ASSERT_NE(plain->create(), 0);
    const auto description = taskFor(plain)->generateTaskDescription(false);
    ASSERT_TRUE(description);
    EXPECT_TRUE(description->contains(QStringLiteral("VARIABLE: \"path\" \"/data\"\n")));
    EXPECT_FALSE(description->contains(QStringLiteral("password_variable")));
    EXPECT_TRUE(m_engine->windows().editedActions.isEmpty());
}

TEST_F(GridActionTaskTest, VariablesSetThroughTheTaskAreSaved)
{
    const auto task = taskFor(m_action);
    ASSERT_TRUE(task->setGridActionVariable(QStringLiteral("token"), QStringLiteral("t1")));
    EXPECT_EQ(
        db().getExtraVariablesForActionId(m_action->aId).value(QStringLiteral("token")).toString(),
        QStringLiteral("t1"));
    ASSERT_TRUE(task->removeGridActionVariable(QStringLiteral("token")));
    EXPECT_FALSE(
        db().getExtraVariablesForActionId(m_action->aId).contains(QStringLiteral("token")));
    Task bare(engine().taskContext);
    EXPECT_FALSE(bare.setGridActionVariable(QStringLiteral("x"), QStringLiteral("y")));
}

} // namespace
