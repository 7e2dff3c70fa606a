#pragma once

#include "actions/ActionFile.h"
#include "platform/ProxySettings.h"
#include "store/GridAction.h"

#include <QFile>
#include <QMap>
#include <QObject>
#include <QRandomGenerator>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>
#include <optional>

class DebugConsoleController;
class FolderMonitorContext;
class TaskRunner;
struct TaskContext;

using TaskVariables = QMap<QString, QString>;

// One run of a script action: the action, the event that started it, the items it acts on
// and the variables handed to the script. Running it writes all of that into a private task
// description file whose path the task runner hands to the runner script.
//
// A QObject because the runner, status rows and notifications refer to a task while it runs
// and must notice when it is gone (QPointer); a runner can also live as the task's child.
class Task : public QObject {
    Q_OBJECT
public:
    // Starts the runner for a written task. Returns false when it did not take the task;
    // the task then cleans up after itself. Tests replace the real TaskRunner with one.
    using RunnerStarter = std::function<bool(Task&)>;

    static inline const QString MaskedValue = QStringLiteral("\u2022\u2022\u2022\u2022");
    static inline const QString DraggedTypeVariable = QStringLiteral("dragged_type");
    static inline const QString PasswordVariable = QStringLiteral("password_variable");
    static inline const QString& ScopedBookmarkVariable = GridAction::ScopedBookmarkVariable;
    static inline const QString HttpProxyVariable = QStringLiteral("http_proxy");
    static inline const QString HttpsProxyVariable = QStringLiteral("https_proxy");

    // `context` (the engine's) outlives every task.
    explicit Task(const TaskContext& context, QObject* parent = nullptr);
    ~Task() override;

    // The grid action the task runs, if any. Building the description re-reads it and its
    // action file from the store, so a run always uses what is saved at that moment.
    mutable ActionFilePtr actionFile;
    mutable GridActionPtr gridAction;
    QString event;
    QStringList items; // file paths, or the dragged text or URL
    TaskVariables variables;
    // Carried untouched for the folder monitor that started the run.
    std::shared_ptr<FolderMonitorContext> folderMonitorContext;
    // Runs once, later on the main event loop, when the task is finished.
    std::function<void()> completion;

    // Set once the description file is written.
    QString taskDescriptionPath() const { return m_taskDescriptionPath; }
    const TaskContext& context() const { return m_context; }
    DebugConsoleController& debugConsole() const;
    // The runner of this run, once started.
    TaskRunner* taskRunner() const { return m_taskRunner; }

    // What the user knows the action as, and its icon.
    QString actionType() const;
    QString actionIconPath() const;
    // The extra variables stored with the grid action, if the task runs one.
    std::optional<QString> gridActionVariable(const QString& name) const;
    bool setGridActionVariable(const QString& name, const QString& value);
    bool removeGridActionVariable(const QString& name);

    // The same action, event, items and variables, without path, runner or completion.
    std::unique_ptr<Task> copy() const;

    // Reads the action's stored login first; the secret store may answer later, so the
    // task may start after run() returns. A task that cannot start then, with nobody left
    // to own it, deletes itself.
    void run();
    bool isWaitingForSecrets() const { return m_waitingForSecrets; }
    // Reads the login that the description will carry, then calls `ready`.
    void loadSecrets(std::function<void()> ready);
    void runWithTaskDescription(const std::optional<QString>& description);

    // The description file's text; none when the task must not run.
    std::optional<QString> generateTaskDescription(bool debugConsoleMode) const;
    // Returns the path written, or none.
    std::optional<QString> writeTaskDescriptionFile(const std::optional<QString>& text) const;
    void appendDebugConsoleInfo() const;

    void finishCompletion();
    // Finishes the completion and deletes the description file unless the user keeps them.
    void cleanup();

    // "Tasks" in the support folder, private to the user; empty when it cannot be created.
    static QString tasksDirectory();
    // Creates a new private file "task-<id>" in the Tasks folder and opens it in `file`;
    // `path` is the file's (or, on failure, the last tried) path. Fails without a Tasks
    // folder, or with NoFreeNameError when MaxNameDraws drawn ids were all taken.
    static bool createTaskDescriptionFile(QFile& file, QString* path, QString* error,
                                          const std::function<QString()>& drawId);
    static constexpr int MaxNameDraws = 100;
    static inline const QString NoFreeNameError =
        QStringLiteral("every drawn task file name was taken");
    // Five characters, each drawn uniformly from "123456789".
    static QString randomId();
    static QString randomId(QRandomGenerator& generator);

    static TaskVariables proxyVariables();
    static TaskVariables proxyVariables(const ProxyEntryList& httpProxies,
                                        const ProxyEntryList& httpsProxies);
    static bool isLocalProxyHost(const QString& host);
    static TaskVariables obfuscateVariables(const TaskVariables& variables);
    static TaskVariables constantVariablesForActionFile(const ActionFile& actionFile);

    // Where the ids of description files come from; an empty source restores randomId().
    static std::function<QString()> idSource();
    static void setIdSource(std::function<QString()> drawId);
    // Replaces how tasks are started; an empty starter restores the real runner.
    static void setRunnerStarter(RunnerStarter starter);

private:
    static bool startTaskRunner(Task& task);

    QString m_taskDescriptionPath;
    TaskRunner* m_taskRunner = nullptr;
    const TaskContext& m_context;
    bool m_descriptionFileRemoved = false;
    bool m_waitingForSecrets = false;
    std::optional<QMap<QString, QString>> m_secret;
    bool m_secretLoaded = false;
};
