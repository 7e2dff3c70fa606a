// `sk add-action` and `sk action-info` for built-in actions, over the handler's real socket.
#include "actions/ActionFileParser.h"
#include "builtin/ActionInfo.h"
#include "builtin/ActionOptionSchemas.h"
#include "builtin/BuiltInActionCatalog.h"
#include "cmdline/CmdLineTaskHandler.h"
#include "core/CmdLineProtocol.h"
#include "core/SupportPaths.h"
#include "platform/CmdLineServer.h"
#include "store/GridDatabase.h"
#include "tests/support/EventLoop.h"
#include "tests/support/TestEngine.h"

#include <QDir>

#include <future>
#include <gtest/gtest.h>

namespace {

class BuiltInCmdLineTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ensureCoreApplication();
        m_engine = std::make_unique<TestEngine>();
        ASSERT_TRUE(GridDatabase::sharedGridDatabase().loadDatabase());
        ActionOptionSchemas::registerOptionSheets();
        ActionFileParser::shared() = ActionFileParser(SupportPaths::internalActionsDirectory(),
                                                      SupportPaths::userActionsDirectory());
        provideBuiltInActions(ActionFileParser::shared(),
                              BuiltInActionCatalog().availableActions());
        m_handler =
            std::make_unique<CmdLineTaskHandler>((*m_engine)->taskContext, (*m_engine)->events);
        ASSERT_TRUE(m_handler->setup(runtime()));
    }
    void TearDown() override
    {
        m_handler.reset();
        provideBuiltInActions(ActionFileParser::shared(), {});
        m_engine.reset();
    }
    QString runtime() const { return QDir(m_engine->home().path()).filePath(QStringLiteral("rt")); }

    QString one(const QVariantMap& request)
    {
        auto reply = std::async(std::launch::async, [&] {
            return CmdLineServer::sendRequest(
                runtime(), QString::fromLatin1(CmdLineProtocol::RunTask), request, 10000);
        });
        waitUntil(
            [&] { return reply.wait_for(std::chrono::seconds(0)) == std::future_status::ready; },
            11000);
        const auto responses = reply.get();
        return responses ? responses->join(u'|') : QStringLiteral("<no finish>");
    }
    QString addAction(const QString& type, const QVariantMap& options)
    {
        return one({{QStringLiteral("action"), QStringLiteral("add-action")},
                    {QStringLiteral("type"), type},
                    {QStringLiteral("cwd"), m_engine->home().path()},
                    {QStringLiteral("options"), options}});
    }

    std::unique_ptr<TestEngine> m_engine;
    std::unique_ptr<CmdLineTaskHandler> m_handler;
};

TEST_F(BuiltInCmdLineTest, AddActionChecksOptionsAgainstTheSchema)
{
    EXPECT_EQ(
        addAction(QStringLiteral("Resize Images"),
                  {{QStringLiteral("output_quality"), QStringLiteral("70")}}),
        QStringLiteral("Error: At least one of 'output_width' or 'output_height' is required."));
    EXPECT_EQ(
        addAction(QStringLiteral("Open URL"), {{QStringLiteral("link"), QStringLiteral("x")}}),
        QStringLiteral("Error: Unknown option 'link' for action type 'Open URL'. Valid "
                       "options are: url"));
    EXPECT_EQ(addAction(QStringLiteral("Run Script"), {}),
              QStringLiteral("Error: Option 'path' is required."));
    EXPECT_EQ(addAction(QStringLiteral("Run Script"),
                        {{QStringLiteral("path"), QStringLiteral("nope.sh")}}),
              QStringLiteral("Error: The script '") + m_engine->home().path() +
                  QStringLiteral("/nope.sh' does not exist."));
    EXPECT_EQ(
        GridDatabase::sharedGridDatabase().getGridActionWithName(QStringLiteral("Run Script")),
        nullptr);

    m_engine->home().writeFile(QStringLiteral("ok.sh"), "#!/bin/sh\n");
    EXPECT_EQ(addAction(QStringLiteral("Run Script"),
                        {{QStringLiteral("path"), QStringLiteral("ok.sh")}}),
              QStringLiteral("Added action 'Run Script' (Run Script) to grid 'Main Grid'"));
    EXPECT_EQ(addAction(QStringLiteral("Resize Images"),
                        {{QStringLiteral("output_width"), QStringLiteral("640")}}),
              QStringLiteral("Added action 'Resize Images' (Resize Images) to grid 'Main Grid'"));
    const GridActionPtr script =
        GridDatabase::sharedGridDatabase().getGridActionWithName(QStringLiteral("Run Script"));
    ASSERT_TRUE(script);
    EXPECT_EQ(script->extraVariables.value(QStringLiteral("path")).toString(),
              m_engine->home().path() + QStringLiteral("/ok.sh"));
    const GridActionPtr resize =
        GridDatabase::sharedGridDatabase().getGridActionWithName(QStringLiteral("Resize Images"));
    ASSERT_TRUE(resize);
    EXPECT_EQ(resize->extraVariables.value(QStringLiteral("output_folder_option")).toString(),
              QStringLiteral("0"));
    EXPECT_EQ(resize->extraVariables.value(QStringLiteral("convert_only")).toString(),
              QStringLiteral("0"));
}

TEST_F(BuiltInCmdLineTest, ActionInfoShowsTheOptionsWithHelpAndDefaults)
{
    const QString info = one({{QStringLiteral("action"), QStringLiteral("action-info")},
                              {QStringLiteral("type"), QStringLiteral("Convert Images")}});
    EXPECT_TRUE(info.startsWith(QStringLiteral(
        "Convert Images\nConverts dropped images to a different format.\n\nSupports images in "
        "PNG, JPG, WEBP, TIFF, GIF and HEIC formats.\n\n")));
    EXPECT_TRUE(info.contains(
        QStringLiteral("Options: set in 'ConvertImages'\n  output_format: Output image format")));
    EXPECT_TRUE(info.contains(
        QStringLiteral("  output_quality: Output quality 0-100 (applies to JPG and WEBP)\n")));
    EXPECT_TRUE(info.contains(QStringLiteral("  output_folder_option: Where converted images "
                                             "are written [0|1|2|3] (default: 0)\n")));
    EXPECT_TRUE(info.endsWith(QStringLiteral("Built-in action\n")));
}

} // namespace
