// inspect-action: the report on one action file, from the library and from the built sk.
#include "actions/ActionFileJson.h"
#include "core/SupportPaths.h"
#include "tests/support/HeadlessApp.h"
#include "tests/support/TestHome.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

namespace {

const QByteArray BrokenScript =
    "# Skelvo Action Info\n# Name: Broken\n# Handles: files\n# Events: Dragged\n\nputs 1\n";

QJsonObject actionOf(const QJsonObject& report)
{
    return report["action"].toObject();
}

TEST(InspectAction, ReportsEachValidationProblem)
{
    TestHome home;
    const QString path = home.writeFile("Broken.skelvo", BrokenScript);
    const QJsonObject report = ActionFileJson::inspect(path);
    EXPECT_FALSE(report.contains("error") || report["valid"].toBool());
    EXPECT_EQ(report["validationErrors"].toArray(),
              (QJsonArray{"Description field is missing",
                          "Handles field is missing and action responds to drag events",
                          "Creator field is missing", "URL field is missing"}));
    const QJsonObject action = actionOf(report);
    EXPECT_EQ(action["actionName"].toString(), "Broken");
    EXPECT_EQ(action["handles"].toArray(), QJsonArray{DragTypes::None});
    EXPECT_TRUE(action["metaValidationFailed"].toBool());
    EXPECT_EQ(action["metaValidationErrors"].toString(), report["validationText"].toString());
    EXPECT_FALSE(action["isBundle"].toBool());
    EXPECT_EQ(action["scriptPath"].toString(), path);

    const QJsonObject dos = ActionFileJson::inspect(
        home.writeFile("Dos.skelvo", "# Skelvo Action Info\r\n# Name: Dos\r\n\r\nputs 1\r\n"));
    EXPECT_EQ(dos["validationErrors"].toArray(),
              QJsonArray{"Section beginning with # Skelvo Action Info not found"});
    EXPECT_TRUE(actionOf(dos)["metaDataNotFound"].toBool());
}

TEST(InspectAction, NotAnActionIsAnError)
{
    TestHome home;
    for (const QString& path :
         {home.writeFile("notes.txt", "# Skelvo Action Info\n"), home.path(),
          home.path() + "/missing.skelvo", home.writeFile(".hidden.skelvo", BrokenScript)}) {
        const QJsonObject report = ActionFileJson::inspect(path);
        EXPECT_FALSE(report["valid"].toBool() || report.contains("action"));
        EXPECT_EQ(report["error"].toString(),
                  QStringLiteral("No action bundle (.skbundle folder) or single-file action "
                                 "(.skelvo file) at %1")
                      .arg(path));
    }
}

TEST(InspectAction, ABundleNeedsItsScriptAndIsFoundByAnUncleanPath)
{
    TestHome home;
    const QString bundle = QDir(SupportPaths::userActionsDirectory()).filePath("Mine.skbundle");
    const QString unclean = SupportPaths::userActionsDirectory() + "/./Mine.skbundle/";
    QDir().mkpath(bundle);
    LogCapture log;
    const QString error = ActionFileJson::inspect(unclean)["error"].toString();
    EXPECT_TRUE(error.startsWith(
        QStringLiteral("Could not read the action script at %1/action.rb").arg(bundle)))
        << error;
    EXPECT_TRUE(log.contains("Error reading file at"));

    home.writeFile(QDir(home.path()).relativeFilePath(bundle + "/action.py"), BrokenScript);
    const QJsonObject report = ActionFileJson::inspect(unclean);
    EXPECT_EQ(report["path"].toString(), bundle);
    const QJsonObject action = actionOf(report);
    for (const char* key : {"isBundle", "isUserScript", "isPythonAction"}) {
        EXPECT_TRUE(action[QString::fromLatin1(key)].toBool()) << key;
    }
    // No icon in the bundle: the generic image.
    EXPECT_EQ(action["iconPath"].toString(),
              QDir(SupportPaths::resourcesDirectory()).filePath("Images/bundle.png"));
}

// --- the built sk

TEST(SkInspect, TheTemplatesAreValidActionsForFilesAndText)
{
    HeadlessApp home;
    const QDir actions(QStringLiteral(SKELVO_SOURCE_RESOURCES "/Actions"));
    for (const bool python : {false, true}) {
        const QString name =
            QStringLiteral("Custom Action %1 Template").arg(python ? "Python" : "Ruby");
        // Ruby by a relative path, indented; Python by an absolute one, on one line.
        const SkResult result =
            python ? home.sk({"inspect-action", "--compact", actions.filePath(name + ".skbundle")})
                   : home.sk({"inspect-action", name + ".skbundle/"}, actions.path());
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.out.count(u'\n') == 1, python) << result.out;
        const QJsonObject report = QJsonDocument::fromJson(result.out.toUtf8()).object();
        EXPECT_TRUE(report["valid"].toBool()) << result.out;
        const QString bundle = actions.filePath(name + ".skbundle");
        // sk resolves the relative path against the working folder as the kernel reports it.
        EXPECT_EQ(QFileInfo(report["path"].toString()).canonicalFilePath(),
                  QFileInfo(bundle).canonicalFilePath());
        const QJsonObject action = actionOf(report);
        EXPECT_EQ(action["actionName"].toString(), name);
        EXPECT_EQ(action["queries"]["handlesString"].toString(), "Files & Text");
        EXPECT_EQ(action["events"].toArray(), (QJsonArray{"Clicked", "Dragged"}));
        EXPECT_EQ(action["isPythonAction"].toBool(), python);
        // The shipped icon must load, or the generic image would be shown instead.
        EXPECT_EQ(QFileInfo(action["iconPath"].toString()).fileName(), "icon.png");
    }
}

TEST(SkInspect, ExitStatuses)
{
    HeadlessApp home;
    const QString broken = home.writeFile("Broken.skelvo", BrokenScript);
    const QString notes = home.writeFile("notes.txt", BrokenScript);
    const QString inspect = "inspect-action";
    const std::pair<QStringList, int> rows[] = {
        {{inspect, broken}, 1},
        {{inspect, notes}, 2},
        // Usage errors: nothing on standard output.
        {{}, 2},
        {{"--frobnicate"}, 2},
        {{inspect}, 2},
        {{inspect, "a", "b"}, 2},
        {{inspect, "--pretty", "a"}, 2},
        {{"help", "frobnicate"}, 2},
    };
    for (const auto& [arguments, status] : rows) {
        const SkResult result = home.sk(arguments);
        EXPECT_EQ(result.status, status) << arguments.join(u' ');
        const bool usage = arguments.size() != 2 || arguments[0] != inspect;
        EXPECT_EQ(result.out.isEmpty(), usage) << arguments.join(u' ');
        EXPECT_EQ(result.err.isEmpty(), !usage) << arguments.join(u' ');
        if (!usage) {
            const QJsonObject report = QJsonDocument::fromJson(result.out.toUtf8()).object();
            EXPECT_FALSE(report["valid"].toBool());
            EXPECT_EQ(report.contains("error"), status == 2);
        }
    }
}

} // namespace
