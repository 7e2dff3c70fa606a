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
    return report[QStringLiteral("action")].toObject();
}

TEST(InspectAction, ReportsEachValidationProblem)
{
    TestHome home;
    const QString path = home.writeFile(QStringLiteral("Broken.skelvo"), BrokenScript);
    const QJsonObject report = ActionFileJson::inspect(path);
    EXPECT_FALSE(report.contains(QStringLiteral("error")) ||
                 report[QStringLiteral("valid")].toBool());
    EXPECT_EQ(
        report[QStringLiteral("validationErrors")].toArray(),
        (QJsonArray{QStringLiteral("Description field is missing"),
                    QStringLiteral("Handles field is missing and action responds to drag events"),
                    QStringLiteral("Creator field is missing"),
                    QStringLiteral("URL field is missing")}));
    const QJsonObject action = actionOf(report);
    EXPECT_EQ(action[QStringLiteral("actionName")].toString(), QStringLiteral("Broken"));
    EXPECT_EQ(action[QStringLiteral("handles")].toArray(), QJsonArray{DragTypes::None});
    EXPECT_TRUE(action[QStringLiteral("metaValidationFailed")].toBool());
    EXPECT_EQ(action[QStringLiteral("metaValidationErrors")].toString(),
              report[QStringLiteral("validationText")].toString());
    EXPECT_FALSE(action[QStringLiteral("isBundle")].toBool());
    EXPECT_EQ(action[QStringLiteral("scriptPath")].toString(), path);

    const QJsonObject dos = ActionFileJson::inspect(home.writeFile(
        QStringLiteral("Dos.skelvo"), "# Skelvo Action Info\r\n# Name: Dos\r\n\r\nputs 1\r\n"));
    EXPECT_EQ(dos[QStringLiteral("validationErrors")].toArray(),
              QJsonArray{QStringLiteral("Section beginning with # Skelvo Action Info not found")});
    EXPECT_TRUE(actionOf(dos)[QStringLiteral("metaDataNotFound")].toBool());
}

TEST(InspectAction, NotAnActionIsAnError)
{
    TestHome home;
    for (const QString& path :
         {home.writeFile(QStringLiteral("notes.txt"), "# Skelvo Action Info\n"), home.path(),
          home.path() + QStringLiteral("/missing.skelvo"),
          home.writeFile(QStringLiteral(".hidden.skelvo"), BrokenScript)}) {
        const QJsonObject report = ActionFileJson::inspect(path);
        EXPECT_FALSE(report[QStringLiteral("valid")].toBool() ||
                     report.contains(QStringLiteral("action")));
        EXPECT_EQ(report[QStringLiteral("error")].toString(),
                  QStringLiteral("No action bundle (.skbundle folder) or single-file action "
                                 "(.skelvo file) at %1")
                      .arg(path));
    }
}

TEST(InspectAction, ABundleNeedsItsScriptAndIsFoundByAnUncleanPath)
{
    TestHome home;
    const QString bundle =
        QDir(SupportPaths::userActionsDirectory()).filePath(QStringLiteral("Mine.skbundle"));
    const QString unclean =
        SupportPaths::userActionsDirectory() + QStringLiteral("/./Mine.skbundle/");
    QDir().mkpath(bundle);
    LogCapture log;
    const QString error = ActionFileJson::inspect(unclean)[QStringLiteral("error")].toString();
    EXPECT_TRUE(error.startsWith(
        QStringLiteral("Could not read the action script at %1/action.rb").arg(bundle)))
        << error;
    EXPECT_TRUE(log.contains(QStringLiteral("Error reading file at")));

    home.writeFile(QDir(home.path()).relativeFilePath(bundle + QStringLiteral("/action.py")),
                   BrokenScript);
    const QJsonObject report = ActionFileJson::inspect(unclean);
    EXPECT_EQ(report[QStringLiteral("path")].toString(), bundle);
    const QJsonObject action = actionOf(report);
    for (const char* key : {"isBundle", "isUserScript", "isPythonAction"}) {
        EXPECT_TRUE(action[QString::fromLatin1(key)].toBool()) << key;
    }
    // No icon in the bundle: the generic image.
    EXPECT_EQ(
        action[QStringLiteral("iconPath")].toString(),
        QDir(SupportPaths::resourcesDirectory()).filePath(QStringLiteral("Images/bundle.png")));
}

// --- the built sk

TEST(SkInspect, TheTemplatesAreValidActionsForFilesAndText)
{
    HeadlessApp home;
    const QDir actions(QStringLiteral(SKELVO_SOURCE_RESOURCES "/Actions"));
    for (const QString& language : {QStringLiteral("Ruby"), QStringLiteral("Python")}) {
        const QString name = QStringLiteral("Custom Action %1 Template").arg(language);
        const bool python = language == u"Python";
        // Ruby by a relative path, indented; Python by an absolute one, on one line.
        const SkResult result =
            python
                ? home.sk({QStringLiteral("inspect-action"), QStringLiteral("--compact"),
                           actions.filePath(name + QStringLiteral(".skbundle"))})
                : home.sk({QStringLiteral("inspect-action"), name + QStringLiteral(".skbundle/")},
                          actions.path());
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.out.count(u'\n') == 1, python) << result.out;
        const QJsonObject report = QJsonDocument::fromJson(result.out.toUtf8()).object();
        EXPECT_TRUE(report[QStringLiteral("valid")].toBool()) << result.out;
        const QString bundle = actions.filePath(name + QStringLiteral(".skbundle"));
        // sk resolves the relative path against the working folder as the kernel reports it.
        EXPECT_EQ(QFileInfo(report[QStringLiteral("path")].toString()).canonicalFilePath(),
                  QFileInfo(bundle).canonicalFilePath());
        const QJsonObject action = actionOf(report);
        EXPECT_EQ(action[QStringLiteral("actionName")].toString(), name);
        EXPECT_EQ(action[QStringLiteral("queries")][QStringLiteral("handlesString")].toString(),
                  QStringLiteral("Files & Text"));
        EXPECT_EQ(action[QStringLiteral("events")].toArray(),
                  (QJsonArray{QStringLiteral("Clicked"), QStringLiteral("Dragged")}));
        EXPECT_EQ(action[QStringLiteral("isPythonAction")].toBool(), python);
        // The shipped icon must load, or the generic image would be shown instead.
        EXPECT_EQ(QFileInfo(action[QStringLiteral("iconPath")].toString()).fileName(),
                  QStringLiteral("icon.png"));
    }
}

TEST(SkInspect, ExitStatuses)
{
    HeadlessApp home;
    const QString broken = home.writeFile(QStringLiteral("Broken.skelvo"), BrokenScript);
    const QString notes = home.writeFile(QStringLiteral("notes.txt"), BrokenScript);
    const QString inspect = QStringLiteral("inspect-action");
    const std::pair<QStringList, int> rows[] = {
        {{inspect, broken}, 1},
        {{inspect, notes}, 2},
        // Usage errors: nothing on standard output.
        {{}, 2},
        {{QStringLiteral("--frobnicate")}, 2},
        {{inspect}, 2},
        {{inspect, QStringLiteral("a"), QStringLiteral("b")}, 2},
        {{inspect, QStringLiteral("--pretty"), QStringLiteral("a")}, 2},
        {{QStringLiteral("help"), QStringLiteral("frobnicate")}, 2},
    };
    for (const auto& [arguments, status] : rows) {
        const SkResult result = home.sk(arguments);
        EXPECT_EQ(result.status, status) << arguments.join(u' ');
        const bool usage = arguments.size() != 2 || arguments[0] != inspect;
        EXPECT_EQ(result.out.isEmpty(), usage) << arguments.join(u' ');
        EXPECT_EQ(result.err.isEmpty(), !usage) << arguments.join(u' ');
        if (!usage) {
            const QJsonObject report = QJsonDocument::fromJson(result.out.toUtf8()).object();
            EXPECT_FALSE(report[QStringLiteral("valid")].toBool());
            EXPECT_EQ(report.contains(QStringLiteral("error")), status == 2);
        }
    }
}

} // namespace
