#include "tasks/Task.h"

#include "actions/ActionFileParser.h"
#include "core/AlertHelper.h"
#include "core/Log.h"
#include "core/Settings.h"
#include "core/SupportPaths.h"
#include "core/Version.h"
#include "core/WindowPresenter.h"
#include "platform/SystemInfo.h"
#include "store/Icons.h"
#include "tasks/DebugConsoleController.h"
#include "tasks/FolderMonitorContext.h"
#include "tasks/TaskContext.h"
#include "tasks/TaskRunner.h"
#include "tasks/TasksController.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QPointer>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

const QString MaskedKeys[] = {
    QStringLiteral("consumer_key"),  QStringLiteral("consumer_secret"),
    QStringLiteral("api_key"),       QStringLiteral("client_id"),
    QStringLiteral("client_secret"), QStringLiteral("access_token"),
    QStringLiteral("refresh_token"), QStringLiteral("access_key_id"),
    QStringLiteral("username"),      QStringLiteral("unique_client_id"),
};

Task::RunnerStarter& runnerStarter()
{
    static Task::RunnerStarter starter;
    return starter;
}

std::function<QString()>& idDrawer()
{
    static std::function<QString()> drawer;
    return drawer;
}

QString quoted(const QString& text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

} // namespace

Task::Task(const TaskContext& context, QObject* parent)
    : QObject(parent)
    , m_context(context)
{}

Task::~Task() = default;

std::unique_ptr<Task> Task::copy() const
{
    auto task = std::make_unique<Task>(m_context);
    task->actionFile = actionFile;
    task->gridAction = gridAction;
    task->event = event;
    task->items = items;
    task->variables = variables;
    return task;
}

DebugConsoleController& Task::debugConsole() const
{
    return m_context.debugConsole;
}

void Task::run()
{
    ActionFileParser::shared().invalidateActionsCache();
    m_waitingForSecrets = true;
    auto returned = std::make_shared<bool>(false);
    QPointer<Task> self(this);
    loadSecrets([self, returned] {
        if (!self) {
            return;
        }
        self->m_waitingForSecrets = false;
        const bool late = *returned;
        const std::optional<QString> description = self->generateTaskDescription(false);
        self->debugConsole().setLastRunTask(self->copy());
        self->runWithTaskDescription(description);
        // Whoever started it has moved on: a task that could not start is nobody's now.
        if (late && self->m_taskDescriptionPath.isEmpty()) {
            self->deleteLater();
        }
    });
    *returned = true;
}

void Task::loadSecrets(std::function<void()> ready)
{
    m_secret.reset();
    m_secretLoaded = false;
    const GridActionPtr stored =
        gridAction ? GridDatabase::sharedGridDatabase().getGridActionWithId(gridAction->aId)
                   : nullptr;
    const ActionFilePtr file = stored && stored->actionFile() ? stored->actionFile() : actionFile;
    if (!stored || !file || !file->optionsNibNeedsKeychain()) {
        m_secretLoaded = true;
        ready();
        return;
    }
    QPointer<Task> self(this);
    stored->retrieveKeychainPasswordShowingErrors(
        false, true,
        [self, ready = std::move(ready)](const std::optional<QMap<QString, QString>>& secret) {
            if (!self) {
                return;
            }
            self->m_secret = secret;
            self->m_secretLoaded = true;
            ready();
        });
}

void Task::runWithTaskDescription(const std::optional<QString>& description)
{
    const std::optional<QString> path = writeTaskDescriptionFile(description);
    if (!path) {
        finishCompletion();
        return;
    }
    m_taskDescriptionPath = *path;
    appendDebugConsoleInfo();

    const RunnerStarter& starter = runnerStarter();
    if (!(starter ? starter(*this) : startTaskRunner(*this))) {
        cleanup();
    }
}

std::optional<QString> Task::generateTaskDescription(bool debugConsoleMode) const
{
    if (!actionFile) {
        Log::error(QStringLiteral("Task for event \"%1\" has no action").arg(event));
        return std::nullopt;
    }

    QString itemsLine;
    if (!items.isEmpty()) {
        // Only file paths are escaped; dragged text reaches the script exactly as it came.
        const bool escape = variables.value(DraggedTypeVariable) == QLatin1String("files");
        itemsLine = QStringLiteral("ITEMS: ");
        for (const QString& item : items) {
            QString written = item;
            if (escape) {
                written.replace(QLatin1Char('"'), QLatin1String("\\\""));
            }
            itemsLine += quoted(written) + QLatin1Char(' ');
        }
        itemsLine = itemsLine.trimmed();
    }

    TaskVariables merged = variables;
    ActionFilePtr file = actionFile;
    if (gridAction) {
        // The action may have been edited or deleted since the event; a deleted one does not run.
        GridActionPtr fresh =
            GridDatabase::sharedGridDatabase().getGridActionWithId(gridAction->aId);
        if (!fresh) {
            return std::nullopt;
        }
        gridAction = fresh;
        if (ActionFilePtr stored = fresh->actionFile()) {
            file = stored;
            actionFile = stored;
        }
        for (auto it = fresh->extraVariables.cbegin(); it != fresh->extraVariables.cend(); ++it) {
            // Bookmarks are binary and only for the application; the file carries text.
            if (it.value().typeId() == QMetaType::QString) {
                merged.insert(it.key(), it.value().toString());
            }
        }
        if (merged.contains(GridAction::PathVariable)) {
            merged[GridAction::PathVariable].replace(QLatin1Char('"'), QLatin1String("\\\""));
        }
    }

    if (file->optionsNibNeedsKeychain() && gridAction) {
        const auto& password = m_secret;
        if (!m_secretLoaded || !password) {
            // Nothing runs until the user has entered the password.
            m_context.windows.showEditWindowForAction(gridAction->aId);
            return std::nullopt;
        }
        const QString key = password->isEmpty() ? QString() : password->firstKey();
        if (!key.isEmpty()) {
            merged.insert(key, debugConsoleMode ? MaskedValue : password->value(key));
            merged.insert(PasswordVariable, key);
        }
    } else if (file->optionsNibNeedsKeychain()) {
        const QString key = file->keychainPasswordKey();
        if (!key.isEmpty() && merged.contains(key)) {
            merged.insert(PasswordVariable, key);
            merged.insert(key, debugConsoleMode
                                   ? MaskedValue
                                   : QString::fromLatin1(merged.value(key).toUtf8().toBase64()));
        }
    }

    merged.insert(constantVariablesForActionFile(*file));

    merged.insert(QStringLiteral("support_folder"), SupportPaths::applicationSupportDirectory());
    merged.insert(QStringLiteral("tmp_folder"), QDir::tempPath());
    merged.insert(QStringLiteral("app_version"), Version::shortVersionString());
    merged.insert(QStringLiteral("os_version"), SystemInfo::osVersion());
    if (SystemInfo::isArm64()) {
        merged.insert(QStringLiteral("apple_silicon"), QStringLiteral("1"));
    }
    if (m_context.settings.boolValue(Settings::DisableSSLVerify)) {
        merged.insert(QStringLiteral("disable_ssl_verify"), QStringLiteral("1"));
    }

    merged.insert(proxyVariables());

    if (debugConsoleMode) {
        merged = obfuscateVariables(merged);
    }

    QString variablesBlock;
    for (auto it = merged.cbegin(); it != merged.cend(); ++it) {
        if (it.key() == ScopedBookmarkVariable) {
            continue;
        }
        variablesBlock += QStringLiteral("VARIABLE: ") + quoted(it.key()) + QLatin1Char(' ') +
                          quoted(it.value()) + QLatin1Char('\n');
    }
    if (itemsLine.isEmpty()) {
        variablesBlock = variablesBlock.trimmed();
    }

    return QStringLiteral("ACTION: ") + quoted(actionFile->taskPath) + QStringLiteral("\nEVENT: ") +
           quoted(event) + QLatin1Char('\n') + variablesBlock + itemsLine;
}

std::optional<QString> Task::writeTaskDescriptionFile(const std::optional<QString>& text) const
{
    if (!text) {
        return std::nullopt;
    }
    QFile file;
    QString path;
    QString error;
    auto failed = [&path, &error] {
        Log::error(QStringLiteral("Error writing task description file %1\n%2").arg(path, error));
        return std::nullopt;
    };
    if (!createTaskDescriptionFile(file, &path, &error, idSource())) {
        if (error == NoFreeNameError) {
            m_context.alerts.showCriticalAlertWithTitle(
                QStringLiteral("Failed to launch task"),
                QStringLiteral("Could not create a task description file in %1: %2")
                    .arg(QFileInfo(path).absolutePath(), error));
        }
        return failed();
    }
    const QByteArray bytes = text->toUtf8();
    if (file.write(bytes) != bytes.size() || !file.flush()) {
        error = file.errorString();
        file.close();
        QFile::remove(path);
        return failed();
    }
    return path;
}

void Task::appendDebugConsoleInfo() const
{
    const QString name = QFileInfo(m_taskDescriptionPath).fileName();
    debugConsole().appendBold(QStringLiteral("\n[Launching task with command line: "));
    debugConsole().appendBold(QStringLiteral("runner.rb ") + name + QStringLiteral("]\n\n"));
    const auto black = DebugConsoleController::Colour::Black;
    debugConsole().append(QStringLiteral("Task description file ") + name + QStringLiteral(":\n\n"),
                          black);
    debugConsole().append(generateTaskDescription(true).value_or(QString()), black);
    debugConsole().append(QStringLiteral("\n"), black);
}

void Task::finishCompletion()
{
    std::function<void()> block = std::exchange(completion, nullptr);
    if (!block) {
        return;
    }
    QCoreApplication* application = QCoreApplication::instance();
    if (!application) {
        // Without an application object there is no main loop to defer to.
        block();
        return;
    }
    QMetaObject::invokeMethod(application, std::move(block), Qt::QueuedConnection);
}

void Task::cleanup()
{
    finishCompletion();
    if (m_taskDescriptionPath.isEmpty() || m_descriptionFileRemoved ||
        m_context.settings.boolValue(Settings::KeepTaskDescriptionFiles)) {
        return;
    }
    QFile file(m_taskDescriptionPath);
    if (!file.remove()) {
        Log::error(QStringLiteral("Error deleting task description file with path (%1): %2")
                       .arg(m_taskDescriptionPath, file.errorString()));
        return;
    }
    m_descriptionFileRemoved = true;
}

QString Task::tasksDirectory()
{
    const QString path = SupportPaths::tasksDirectory();
    if (!path.isEmpty()) {
        QFile::setPermissions(path, QFileDevice::ReadOwner | QFileDevice::WriteOwner |
                                        QFileDevice::ExeOwner);
    }
    return path;
}

bool Task::createTaskDescriptionFile(QFile& file, QString* path, QString* error,
                                     const std::function<QString()>& drawId)
{
    const QString directory = tasksDirectory();
    if (directory.isEmpty()) {
        *path = QDir(SupportPaths::applicationSupportDirectory()).filePath(QStringLiteral("Tasks"));
        *error = QStringLiteral("The Tasks folder is not available");
        return false;
    }
    for (int draw = 0; draw < MaxNameDraws; ++draw) {
        *path = QDir(directory).filePath(QStringLiteral("task-") + drawId());
        // Claiming the name and creating the file are one step, so a concurrent run (or
        // anything planted at the name, links included) is never written through.
        const int fd = ::open(QFile::encodeName(*path).constData(),
                              O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd < 0 && errno == EEXIST) {
            continue;
        }
        if (fd < 0) {
            *error = QString::fromLocal8Bit(std::strerror(errno));
            return false;
        }
        // Private whatever the umask, before any secret is written into it.
        if (::fchmod(fd, 0600) != 0) {
            *error = QString::fromLocal8Bit(std::strerror(errno));
        } else if (!file.open(fd, QIODevice::WriteOnly, QFileDevice::AutoCloseHandle)) {
            *error = file.errorString();
        } else {
            return true;
        }
        ::close(fd);
        QFile::remove(*path);
        return false;
    }
    *error = NoFreeNameError;
    return false;
}

QString Task::randomId()
{
    return randomId(*QRandomGenerator::global());
}

QString Task::randomId(QRandomGenerator& generator)
{
    static const QString digits = QStringLiteral("123456789");
    QString id;
    for (int i = 0; i < 5; ++i) {
        id += digits.at(static_cast<qsizetype>(generator.bounded(9u)));
    }
    return id;
}

TaskVariables Task::proxyVariables()
{
    const ProxySettings settings = ProxySettings::system();
    return proxyVariables(settings.httpProbeProxies(), settings.httpsProbeProxies());
}

TaskVariables Task::proxyVariables(const ProxyEntryList& httpProxies,
                                   const ProxyEntryList& httpsProxies)
{
    auto address = [](const ProxyEntry& entry) {
        // An IPv6 literal needs its brackets to stay a valid URL.
        const QString host = entry.host.contains(QLatin1Char(':'))
                                 ? QLatin1Char('[') + entry.host + QLatin1Char(']')
                                 : entry.host;
        return host + QLatin1Char(':') + QString::number(entry.port);
    };
    TaskVariables result;
    for (const ProxyEntryList* list : {&httpProxies, &httpsProxies}) {
        for (const ProxyEntry& entry : *list) {
            if (isLocalProxyHost(entry.host)) {
                if (!result.contains(HttpProxyVariable)) {
                    result.insert(HttpProxyVariable, QStringLiteral("http://") + address(entry));
                }
                continue;
            }
            if (entry.type == ProxyEntry::Type::HTTP && !result.contains(HttpProxyVariable)) {
                result.insert(HttpProxyVariable, QStringLiteral("http://") + address(entry));
            } else if (entry.type == ProxyEntry::Type::HTTPS &&
                       !result.contains(HttpsProxyVariable)) {
                result.insert(HttpsProxyVariable, QStringLiteral("https://") + address(entry));
            }
        }
    }
    return result;
}

bool Task::isLocalProxyHost(const QString& host)
{
    return host == QLatin1String("127.0.0.1") || host == QLatin1String("localhost");
}

TaskVariables Task::obfuscateVariables(const TaskVariables& variables)
{
    TaskVariables masked = variables;
    for (const QString& key : MaskedKeys) {
        if (masked.contains(key)) {
            masked.insert(key, MaskedValue);
        }
    }
    return masked;
}

TaskVariables Task::constantVariablesForActionFile(const ActionFile& actionFile)
{
    return actionFile.constantVariables();
}

std::function<QString()> Task::idSource()
{
    const std::function<QString()>& drawer = idDrawer();
    return drawer ? drawer : [] { return randomId(); };
}

void Task::setIdSource(std::function<QString()> drawId)
{
    idDrawer() = std::move(drawId);
}

void Task::setRunnerStarter(RunnerStarter starter)
{
    runnerStarter() = std::move(starter);
}

bool Task::startTaskRunner(Task& task)
{
    // The runner lives and dies with its task; the tasks controller owns the task from here.
    task.m_taskRunner = new TaskRunner(&task, &task);
    task.m_context.tasks.addTask(&task);
    task.m_taskRunner->run();
    return true;
}

QString Task::actionType() const
{
    if (gridAction) {
        return gridAction->type;
    }
    return actionFile ? actionFile->actionName : QString();
}

QString Task::actionIconPath() const
{
    if (gridAction) {
        const QString cached = m_context.icons.iconPathForId(gridAction->aId);
        if (QFileInfo::exists(cached)) {
            return cached;
        }
    }
    return actionFile ? actionFile->iconPath() : QString();
}

std::optional<QString> Task::gridActionVariable(const QString& name) const
{
    if (!gridAction || !gridAction->extraVariables.contains(name)) {
        return std::nullopt;
    }
    return gridAction->extraVariables.value(name).toString();
}

bool Task::setGridActionVariable(const QString& name, const QString& value)
{
    if (!gridAction) {
        return false;
    }
    gridAction->extraVariables.insert(name, value);
    return gridAction->update();
}

bool Task::removeGridActionVariable(const QString& name)
{
    if (!gridAction) {
        return false;
    }
    gridAction->extraVariables.remove(name);
    return gridAction->update();
}
