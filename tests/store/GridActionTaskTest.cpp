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

TEST_F(GridActionTaskTest, TheFileHoldsTheStoredRecordAndItsPassword)
{
    ASSERT_TRUE(storePassword(*m_action, QStringLiteral("s3cret pw")));
    const auto task = taskFor(m_action);
    // The stored record wins over the one the task was made with.
    m_action->extraVariables.insert(QStringLiteral("remote_path"), QStringLiteral("/srv/new"));
    ASSERT_TRUE(m_action->update());
    const auto description = task->generateTaskDescription(false);
    ASSERT_TRUE(description);
    for (const QString& line : {QStringLiteral("\"password\" \"czNjcmV0IHB3\"\n"),
                                QStringLiteral("\"password_variable\" \"password\"\n"),
                                QStringLiteral("\"server\" \"sftp.example.org\"\n"),
                                QStringLiteral("\"remote_path\" \"/srv/new\"\n"),
                                QStringLiteral("\"path\" \"/home/ann/key \\\"id\\\"\"\n")}) {
        EXPECT_TRUE(description->contains(QStringLiteral("VARIABLE: ") + line))
            << line.toStdString();
    }
    EXPECT_FALSE(description->contains(QStringLiteral("scoped_bookmark")));
    EXPECT_EQ(task->gridActionVariable(QStringLiteral("remote_path")), QStringLiteral("/srv/new"));

    // Variables set through the task are saved.
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

TEST_F(GridActionTaskTest, WithoutItsPasswordOrItsRecordNothingRuns)
{
    // An action without a login needs no password.
    GridActionPtr plain = m_action->copy();
    plain->type = QStringLiteral("Plain");
    plain->extraVariables = {{QStringLiteral("path"), QStringLiteral("/data")}};
    ASSERT_NE(plain->create(), 0);
    const auto description = taskFor(plain)->generateTaskDescription(false);
    ASSERT_TRUE(description);
    EXPECT_TRUE(description->contains(QStringLiteral("VARIABLE: \"path\" \"/data\"\n")));
    EXPECT_FALSE(description->contains(QStringLiteral("password_variable")));
    EXPECT_TRUE(m_engine->windows().editedActions.isEmpty());

    // A missing password opens the edit window.
    EXPECT_FALSE(taskFor(m_action)->generateTaskDescription(false));
    EXPECT_EQ(m_engine->windows().editedActions, QList<ActionId>{m_action->aId});

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
    EXPECT_EQ(m_engine->windows().editedActions.size(), 1);
}

} // namespace
