// Picks a mode and hands over: help, version, inspecting an action, or running the
// application with or without a display.
#include "actions/ActionFileJson.h"
#include "app/AppDelegate.h"
#include "app/DesktopAlertPresenter.h"
#include "app/DesktopIcons.h"
#include "cmdline/CmdLineTaskHandler.h"
#include "core/CmdLineProtocol.h"
#include "core/SecretStore.h"
#include "core/SupportPaths.h"
#include "core/Version.h"
#include "platform/CmdLineServer.h"
#include "platform/QtKeychainSecretStore.h"
#include "platform/UnixSignals.h"

#include <QApplication>
#include <QCoreApplication>
#include <QDir>
#include <QJsonDocument>

#include <cstdio>
#include <cstring>
#include <memory>

namespace {

const char* const Usage =
    "Usage: skelvo [--headless] [ACTION-FILE | skelvo://URL ...]\n"
    "       skelvo --inspect-action PATH\n"
    "       skelvo --help | --version\n"
    "\n"
    "Starts Skelvo. Without a display (or with --headless) it runs without any window and\n"
    "serves the sk command-line tool.\n"
    "\n"
    "  --headless              run without windows even when a display is available\n"
    "  --inspect-action PATH   print what Skelvo reads from an action bundle or file, as JSON\n"
    "  --help                  show this help\n"
    "  --version               show the version\n";

bool displayAvailable()
{
    return qEnvironmentVariableIsSet("DISPLAY") || qEnvironmentVariableIsSet("WAYLAND_DISPLAY") ||
           qEnvironmentVariable("QT_QPA_PLATFORM") == QStringLiteral("offscreen");
}

int inspectAction(const char* path)
{
    const QJsonObject report = ActionFileJson::inspect(QString::fromLocal8Bit(path));
    std::fputs(QJsonDocument(report).toJson(QJsonDocument::Indented).constData(), stdout);
    if (report.contains(QStringLiteral("error"))) {
        return 2;
    }
    return report.value(QStringLiteral("valid")).toBool() ? 0 : 1;
}

} // namespace

int main(int argc, char* argv[])
{
    SupportPaths::locateResources();
    bool headless = false;
    QStringList arguments;
    for (int i = 1; i < argc; ++i) {
        const char* arg = argv[i];
        if (!std::strcmp(arg, "--help") || !std::strcmp(arg, "-h")) {
            std::fputs(Usage, stdout);
            return 0;
        }
        if (!std::strcmp(arg, "--version")) {
            std::printf("skelvo %s\n", Version::shortVersionString().toUtf8().constData());
            return 0;
        }
        if (!std::strcmp(arg, "--inspect-action")) {
            if (i + 1 >= argc) {
                std::fputs("skelvo: --inspect-action needs a path\n", stderr);
                return 2;
            }
            QCoreApplication app(argc, argv);
            return inspectAction(argv[i + 1]);
        }
        if (!std::strcmp(arg, "--headless")) {
            headless = true;
            continue;
        }
        if (arg[0] != '-') {
            arguments << QString::fromLocal8Bit(arg); // action files and skelvo:// URLs
            continue;
        }
        std::fprintf(stderr, "skelvo: unknown option %s\n%s", arg, Usage);
        return 2;
    }
    headless = headless || !displayAvailable();

    EngineParts parts;
    std::unique_ptr<QCoreApplication> app;
    if (headless) {
        app = std::make_unique<QCoreApplication>(argc, argv);
    } else {
        auto gui = std::make_unique<QApplication>(argc, argv);
        gui->setQuitOnLastWindowClosed(false);
        parts.alerts = std::make_shared<DesktopAlertPresenter>();
        app = std::move(gui);
    }
    // A secret service keeps passwords whenever one answers on the session bus, headless or
    // not (`sk --start` from a desktop terminal); without one, a file readable by the user.
    parts.secrets = std::make_shared<QtKeychainSecretStore>();
    QCoreApplication::setApplicationName(QStringLiteral("Skelvo"));
    QCoreApplication::setApplicationVersion(Version::shortVersionString());

    AppDelegate delegate(headless, std::move(parts));
    if (!headless) {
        DesktopIcons::install(delegate.engine().icons);
    }
    QString error;
    if (!delegate.claimInstance(&error)) {
        if (!delegate.cmdLineTaskHandler()->server().anotherInstanceIsRunning()) {
            std::fprintf(stderr, "skelvo: %s\n", error.toLocal8Bit().constData());
            return 1;
        }
        // One instance per user: hand the arguments to the running one.
        const auto responses = CmdLineServer::sendRequest(
            SupportPaths::runtimeDirectory(), QString::fromLatin1(CmdLineProtocol::HandOver),
            {{QStringLiteral("arguments"), arguments},
             {QStringLiteral("cwd"), QDir::currentPath()}});
        if (!responses) {
            std::fputs("skelvo: another instance holds the lock but does not answer\n", stderr);
            return 1;
        }
        for (const QString& response : *responses) {
            std::printf("%s\n", response.toLocal8Bit().constData());
        }
        return 0;
    }
    delegate.openArguments(arguments, QDir::currentPath());
    UnixSignals::quitOnTermination([] { QCoreApplication::quit(); });
    delegate.applicationDidFinishLaunching();
    const int status = app->exec();
    delegate.applicationWillTerminate();
    return status;
}
