// How much the task runner adds to each protocol command. Three figures in one run:
//  (a) a C parent and a C child ping-ponging one byte over pipes: the kernel's floor;
//  (b) a Ruby child printing a command and waiting for the newline, against a C parent:
//      what the interpreter itself costs;
//  (c) a Ruby action sending the same commands through runner.rb and the real TaskRunner.
#include "actions/ActionFileParser.h"
#include "app/Engine.h"
#include "core/Log.h"
#include "core/NotificationCenter.h"
#include "core/SupportPaths.h"
#include "tasks/Task.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int Commands = 10000;

double pingPongC()
{
    int toChild[2];
    int toParent[2];
    if (pipe(toChild) != 0 || pipe(toParent) != 0) {
        std::perror("pipe");
        std::exit(1);
    }
    const pid_t pid = fork();
    char byte = 'x';
    if (pid == 0) {
        for (int i = 0; i < Commands; ++i) {
            if (read(toChild[0], &byte, 1) != 1 || write(toParent[1], &byte, 1) != 1) {
                _exit(1);
            }
        }
        _exit(0);
    }
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < Commands; ++i) {
        if (write(toChild[1], &byte, 1) != 1 || read(toParent[0], &byte, 1) != 1) {
            break;
        }
    }
    const double seconds = static_cast<double>(timer.nsecsElapsed()) / 1e9;
    waitpid(pid, nullptr, 0);
    for (int fd : {toChild[0], toChild[1], toParent[0], toParent[1]}) {
        close(fd);
    }
    return seconds;
}

// Returns {whole run, Ruby's start-up} in seconds.
std::pair<double, double> pingPongRuby()
{
    int toChild[2];
    int toParent[2];
    if (pipe(toChild) != 0 || pipe(toParent) != 0) {
        std::perror("pipe");
        std::exit(1);
    }
    const std::string script = "$stdout.sync = true; print \"ready\\n\"; STDIN.gets; " +
                               std::to_string(Commands) +
                               ".times { |i| print \"Progress: #{i % 100}\\n\"; STDIN.gets }";
    QElapsedTimer timer;
    timer.start();
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(toChild[0], 0);
        dup2(toParent[1], 1);
        execlp("ruby", "ruby", "-e", script.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    close(toChild[0]);
    close(toParent[1]);
    FILE* in = fdopen(toParent[0], "r");
    char line[256];
    if (!std::fgets(line, sizeof line, in)) {
        std::exit(1);
    }
    const double startup = static_cast<double>(timer.nsecsElapsed()) / 1e9;
    timer.restart();
    if (write(toChild[1], "\n", 1) != 1) {
        std::exit(1);
    }
    for (int i = 0; i < Commands; ++i) {
        if (!std::fgets(line, sizeof line, in) || write(toChild[1], "\n", 1) != 1) {
            break;
        }
    }
    const double seconds = static_cast<double>(timer.nsecsElapsed()) / 1e9;
    close(toChild[1]);
    waitpid(pid, nullptr, 0);
    std::fclose(in);
    return {seconds + startup, startup};
}

double throughTaskRunner(Engine& engine, const QString& actionsFolder, int commands)
{
    const QString name = QStringLiteral("Progress Bench %1").arg(commands);
    const QString bundle = QDir(actionsFolder).filePath(name + QStringLiteral(".skbundle"));
    QDir().mkpath(bundle);
    QFile script(QDir(bundle).filePath(QStringLiteral("action.rb")));
    if (!script.open(QIODevice::WriteOnly)) {
        std::exit(1);
    }
    script.write(QStringLiteral("# Skelvo Action Info\n# Name: %2\n# Description: d\n"
                                "# Events: Clicked\n# Creator: bench\n# URL: u\n\n"
                                "def clicked(variables, helper)\n"
                                "  %1.times { |i| helper.progress(i %% 100) }\nend\n")
                     .arg(commands)
                     .arg(name)
                     .toUtf8()
                     .replace("%%", "%"));
    script.close();

    ActionFileParser parser(SupportPaths::internalActionsDirectory(), actionsFolder);
    const ActionFilePtr action = parser.getActionWithType(name);
    if (!action) {
        std::fprintf(stderr, "bench action not found\n");
        std::exit(1);
    }
    auto* task = new Task(engine.taskContext);
    task->actionFile = action;
    task->event = QStringLiteral("clicked");
    QElapsedTimer timer;
    bool done = false;
    const int token = engine.notifications.addObserver(Notifications::TaskFinished, nullptr,
                                                       [&](const Notification&) {
                                                           done = true;
                                                           QCoreApplication::quit();
                                                       });
    timer.start();
    task->run();
    QCoreApplication::exec();
    engine.notifications.removeObserver(token);
    // The runner reports the end 0.2 s after the process exits, so that buffered output
    // is read first; that wait is not per-command work.
    return done ? static_cast<double>(timer.nsecsElapsed()) / 1e9 - 0.2 : -1.0;
}

} // namespace

int main(int argc, char* argv[])
{
    QTemporaryDir home;
    qputenv("SKELVO_HOME", home.path().toUtf8());
    QCoreApplication app(argc, argv);
    Log::setStderrLevel(Log::Level::Warning);
    Engine engine;

    // Best of three, so that a busy moment of the machine does not decide the figures.
    double c = 1e9;
    double ruby = 1e9;
    double rubyStartup = 1e9;
    double runnerEmpty = 1e9;
    double runner = 1e9;
    const QString actions = QDir(home.path()).filePath(QStringLiteral("actions"));
    for (int round = 0; round < 3; ++round) {
        c = std::min(c, pingPongC());
        const auto [whole, startup] = pingPongRuby();
        ruby = std::min(ruby, whole - startup);
        rubyStartup = std::min(rubyStartup, startup);
        runnerEmpty = std::min(runnerEmpty, throughTaskRunner(engine, actions, 0));
        runner = std::min(runner, throughTaskRunner(engine, actions, Commands));
    }
    if (runner < 0 || runnerEmpty < 0) {
        std::fprintf(stderr, "the task did not finish\n");
        return 1;
    }
    auto perCommand = [](double seconds) { return seconds / Commands * 1e6; };
    const double runnerLoop = runner - runnerEmpty;
    std::printf("%d protocol commands, each waiting for its acknowledgement (best of 3)\n",
                Commands);
    std::printf("%-44s %10s %12s %12s\n", "", "loop s", "us/command", "start-up s");
    std::printf("%-44s %10.3f %12.1f %12s\n", "(a) C parent <-> C child (pipe floor)", c,
                perCommand(c), "-");
    std::printf("%-44s %10.3f %12.1f %12.3f\n", "(b) C parent <-> Ruby child", ruby,
                perCommand(ruby), rubyStartup);
    std::printf("%-44s %10.3f %12.1f %12.3f\n", "(c) Skelvo TaskRunner <-> runner.rb action",
                runnerLoop, perCommand(runnerLoop), runnerEmpty);
    std::printf(
        "TaskRunner adds %.1f us per command over (b) (target: at most 30); whole run %.3f s "
        "(target: under 1 s)\n",
        perCommand(runnerLoop - ruby), runner);
    return 0;
}
