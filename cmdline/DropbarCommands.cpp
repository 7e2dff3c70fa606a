// The Drop Bar commands: add, list-items, rename, remove, lock, unlock, clear. Stacks are
// numbered by their slot in the shown grid's Drop Bar row, so slot 0 (the standing empty
// slot) is never a stack.
#include "cmdline/CmdLineTaskHandler.h"
#include "cmdline/CommandSupport.h"
#include "dropbar/DropbarController.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

using namespace CommandSupport;

namespace {

QString itemsCount(qsizetype count)
{
    return count == 1 ? QStringLiteral("1 item") : QStringLiteral("%1 items").arg(count);
}

QJsonObject stackJson(int index, const Dropbar& dropbar)
{
    QJsonArray items;
    for (const DropbarItem& item : dropbar.items) {
        QJsonObject entry;
        if (item.isText()) {
            entry.insert(QStringLiteral("type"), QStringLiteral("text"));
            entry.insert(QStringLiteral("text"), item.text);
            entry.insert(QStringLiteral("path"),
                         item.path.isEmpty() ? QJsonValue() : QJsonValue(item.path));
        } else {
            entry.insert(QStringLiteral("type"), QStringLiteral("url"));
            entry.insert(QStringLiteral("path"), item.path);
            entry.insert(QStringLiteral("missing"), item.missing);
        }
        items.append(entry);
    }
    return {{QStringLiteral("index"), index},
            {QStringLiteral("id"), dropbar.dbId},
            {QStringLiteral("title"), dropbar.title},
            {QStringLiteral("name"), dropbar.name.isEmpty() ? QJsonValue() : dropbar.name},
            {QStringLiteral("locked"), dropbar.locked},
            {QStringLiteral("items"), items}};
}

QString stackText(int index, const Dropbar& dropbar)
{
    QString text = QStringLiteral("%1: %2 (%3)")
                       .arg(index)
                       .arg(dropbar.displayName(), itemsCount(dropbar.items.size()));
    if (dropbar.locked) {
        text += QStringLiteral(" [locked]");
    }
    text += u'\n';
    for (const DropbarItem& item : dropbar.items) {
        if (item.isText()) {
            const QString shown =
                item.text.size() > 60 ? item.text.left(60) + QChar(0x2026) : item.text;
            text += QStringLiteral("    \"%1\"\n").arg(shown);
        } else {
            text += (item.missing ? QStringLiteral("    (missing) ") : QStringLiteral("    ")) +
                    item.path + u'\n';
        }
    }
    return text;
}

} // namespace

DropbarController* CmdLineTaskHandler::dropbarsFor(const CmdLineRequestPtr& client,
                                                   const char* failure)
{
    if (!m_dropbars) {
        client->respond(QString::fromLatin1(failure));
    }
    return m_dropbars;
}

void CmdLineTaskHandler::addToDropbar(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    DropbarController* dropbars =
        dropbarsFor(client, "Error: Could not access Drop Bar controller or items.");
    if (!dropbars) {
        return;
    }
    const QString cwd = str(request, "cwd");
    QStringList files;
    for (const QVariant& file : request.value(QStringLiteral("files")).toList()) {
        files << absolutePath(file.toString(), cwd);
    }
    const bool hasText = request.contains(QStringLiteral("text"));
    if (files.isEmpty() && !hasText) {
        client->respond(QStringLiteral("Error: No files provided to add"));
        return;
    }
    QStringList missing;
    for (const QString& file : std::as_const(files)) {
        if (!QFileInfo::exists(file) && !QFileInfo(file).isSymLink()) {
            missing << file;
        }
    }
    if (!missing.isEmpty()) {
        client->respond(QStringLiteral("Error: The following files do not exist: ") +
                        missing.join(QStringLiteral(", ")));
        return;
    }
    const std::optional<qint64> stackIndex = integer(request, "stackIndex");
    const bool stack = flag(request, "stack");
    const QString name = str(request, "name");
    const qsizetype itemCount = files.size() + (hasText ? 1 : 0);
    if (!name.isEmpty() && stackIndex) {
        client->respond(
            QStringLiteral("Error: --name only applies to new stacks. Use 'sk rename ") +
            QString::number(*stackIndex) + QStringLiteral(" \"…\"' to rename an existing stack."));
        return;
    }
    if (!name.isEmpty() && itemCount > 1 && !stack) {
        client->respond(QStringLiteral(
            "Error: --name can only name one stack. Without --stack, each file is added as a "
            "separate stack — add --stack to combine them into one named stack."));
        return;
    }
    const auto& row = dropbars->dropbars();
    if (stackIndex && (*stackIndex < 1 || *stackIndex >= row.size())) {
        client->respond(QStringLiteral("Error: Stack index ") + QString::number(*stackIndex) +
                        QStringLiteral(" does not exist. Use 'sk list-items' to see available "
                                       "stacks."));
        return;
    }

    QList<DropbarItem> items;
    for (const QString& file : std::as_const(files)) {
        items << DropbarItem::file(file);
    }
    if (hasText) {
        items << DropbarItem::ofText(str(request, "text"));
    }
    QList<QList<DropbarItem>> stacks;
    if (stack || stackIndex) {
        stacks << items;
    } else {
        for (const DropbarItem& item : std::as_const(items)) {
            stacks << QList<DropbarItem>{item};
        }
    }
    DropbarTarget target;
    if (stackIndex) {
        target.slot = static_cast<int>(*stackIndex);
    }
    // The adds are queued behind any in progress; the request ends with the last of them.
    client->stayOpen();
    auto remaining = std::make_shared<qsizetype>(stacks.size());
    QPointer<DropbarController> controller(dropbars);
    for (const QList<DropbarItem>& stackItems : std::as_const(stacks)) {
        const qsizetype count = stackItems.size();
        dropbars->addItems(
            stackItems, name, target,
            [client, remaining, controller, count](bool added, DropbarId dbId) {
                const auto slot = controller ? controller->slotOfDropbar(dbId) : std::nullopt;
                if (added && slot) {
                    client->respond(QStringLiteral("Successfully added ") + itemsCount(count) +
                                    QStringLiteral(" to stack at index ") + QString::number(*slot));
                } else if (added) {
                    client->respond(QStringLiteral("Successfully added ") + itemsCount(count) +
                                    QStringLiteral(" to the Drop Bar"));
                } else {
                    client->respond(
                        QStringLiteral("Error: The items could not be added to the Drop Bar. "
                                       "See the log for why."));
                }
                if (--*remaining == 0) {
                    client->finish();
                }
            });
    }
}

void CmdLineTaskHandler::listDropbarItems(const CmdLineRequestPtr& client,
                                          const QVariantMap& request)
{
    DropbarController* dropbars = dropbarsFor(client, "Error: Could not access Drop Bar items.");
    if (!dropbars) {
        return;
    }
    // Files renamed or deleted since they were added show as they are now.
    dropbars->updateDropbarMissingSources();
    const auto& row = dropbars->dropbars();
    if (flag(request, "json")) {
        QJsonArray stacks;
        for (int slot = 1; slot < row.size(); ++slot) {
            stacks.append(stackJson(slot, *row.at(slot)));
        }
        // Compact: a listing of thousands of items stays quick to send and to read.
        client->respond(QString::fromUtf8(QJsonDocument(stacks).toJson(QJsonDocument::Compact)));
        return;
    }
    if (row.size() < 2) {
        client->respond(QStringLiteral("Drop Bar is empty.\n"));
        return;
    }
    QString text = QStringLiteral("\nCurrent Drop Bar Items:\n");
    for (int slot = 1; slot < row.size(); ++slot) {
        text += stackText(slot, *row.at(slot));
    }
    client->respond(text);
}

std::optional<DropbarId> CmdLineTaskHandler::requestedStack(const CmdLineRequestPtr& client,
                                                            const QVariantMap& request)
{
    const std::optional<qint64> index = integer(request, "index");
    if (!index) {
        client->respond(
            QStringLiteral("Error: Missing index for %1 command.").arg(str(request, "action")));
        return std::nullopt;
    }
    DropbarController* dropbars =
        dropbarsFor(client, "Error: Could not access Drop Bar controller or items.");
    if (!dropbars) {
        return std::nullopt;
    }
    const auto& row = dropbars->dropbars();
    if (*index < 0 || *index >= row.size()) {
        client->fail(QString::number(*index) + QStringLiteral(" is out of bounds."));
        return std::nullopt;
    }
    if (!row.at(*index)) {
        client->respond(
            QStringLiteral("Error: Item at index %1 is not a valid stack dictionary.").arg(*index));
        return std::nullopt;
    }
    const DropbarId dbId = row.at(*index)->dbId;
    if (!dbId || dbId == Identifiers::FirstDropbarId) {
        client->respond(
            QStringLiteral("Error: Could not find ID for stack at index %1").arg(*index));
        return std::nullopt;
    }
    return dbId;
}

void CmdLineTaskHandler::renameStack(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    if (!integer(request, "index")) {
        client->respond(QStringLiteral("Error: Missing index for rename command."));
        return;
    }
    const bool reset = flag(request, "reset");
    if (has(request, "newName") && reset) {
        client->respond(QStringLiteral("Error: Cannot provide both a new name and --reset flag."));
        return;
    }
    if (!has(request, "newName") && !reset) {
        client->respond(QStringLiteral("Error: Must provide either a new name or --reset flag."));
        return;
    }
    const std::optional<DropbarId> dbId = requestedStack(client, request);
    if (!dbId) {
        return;
    }
    const qint64 index = *integer(request, "index");
    const std::optional<int> slot = m_dropbars->slotOfDropbar(*dbId);
    if (m_dropbars->dropbars().at(*slot)->containsOnlyText()) {
        client->respond(
            QStringLiteral("Error: Cannot rename a stack that contains only text items."));
        return;
    }
    if (!m_dropbars->setDropbarNameWithaId(*dbId, reset ? QString() : str(request, "newName"))) {
        client->respond(
            QStringLiteral("Error: The stack at index %1 could not be saved.").arg(index));
    } else if (reset) {
        client->respond(QStringLiteral("Successfully reset name for stack at index %1").arg(index));
    } else {
        client->respond(QStringLiteral("Successfully renamed stack at index %1").arg(index));
    }
}

void CmdLineTaskHandler::removeStack(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    const std::optional<DropbarId> dbId = requestedStack(client, request);
    if (!dbId) {
        return;
    }
    const qint64 index = *integer(request, "index");
    if (!m_dropbars->removeDropbarWithaId(*dbId)) {
        client->respond(
            QStringLiteral("Error: The stack at index %1 could not be removed.").arg(index));
        return;
    }
    client->respond(QStringLiteral("Successfully removed stack at index %1").arg(index));
}

void CmdLineTaskHandler::lockStack(const CmdLineRequestPtr& client, const QVariantMap& request)
{
    const std::optional<DropbarId> dbId = requestedStack(client, request);
    if (!dbId) {
        return;
    }
    const bool lock = str(request, "action") == u"lock";
    const qint64 index = *integer(request, "index");
    if (!m_dropbars->setDropbarLockingWithaId(*dbId, lock)) {
        client->respond(
            QStringLiteral("Error: The stack at index %1 could not be saved.").arg(index));
        return;
    }
    client->respond((lock ? QStringLiteral("Locked") : QStringLiteral("Unlocked")) +
                    QStringLiteral(" stack at index %1").arg(index));
}

void CmdLineTaskHandler::clearDropbar(const CmdLineRequestPtr& client, const QVariantMap&)
{
    DropbarController* dropbars =
        dropbarsFor(client, "Error: Could not access Drop Bar controller or items.");
    if (!dropbars) {
        return;
    }
    if (!dropbars->removeDropbars()) {
        client->respond(QStringLiteral("Error: The Drop Bar could not be cleared."));
        return;
    }
    client->respond(QStringLiteral("Successfully cleared Drop Bar items"));
}
