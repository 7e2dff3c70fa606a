// The shell completions offer exactly the commands and options of sk's command table.
#include "cli/Commands.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QSet>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

QString completionFile(const char* name)
{
    return QDir(QStringLiteral(SK_COMPLETIONS_DIR)).filePath(QString::fromLatin1(name));
}

QString toQString(std::string_view text)
{
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

// The options a command takes, as the completions should offer them.
QSet<QString> expectedOptions(const sk::Command& command)
{
    QSet<QString> options{QStringLiteral("--help")};
    for (const sk::Option& option : command.options) {
        options.insert(toQString(option.flag));
    }
    if (command.name == "inspect-action") {
        options.insert(QStringLiteral("--compact"));
    }
    return options;
}

QSet<QString> allCommands()
{
    QSet<QString> names;
    for (const sk::Command& command : sk::commands()) {
        names.insert(toQString(command.name));
    }
    return names;
}

// What bash offers for the command line `words` (the last one being completed).
QSet<QString> bashCompletions(const QStringList& words, const QString& workingDirectory = {})
{
    const QString script =
        QStringLiteral("source \"$1\"; shift\n"
                       "COMP_WORDS=(\"$@\"); COMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n"
                       "_sk sk \"${COMP_WORDS[COMP_CWORD]}\" \"${COMP_WORDS[COMP_CWORD - 1]}\"\n"
                       "printf '%s\\n' \"${COMPREPLY[@]}\"\n");
    QProcess bash;
    if (!workingDirectory.isEmpty()) {
        bash.setWorkingDirectory(workingDirectory);
    }
    bash.start(QStringLiteral("bash"),
               QStringList{QStringLiteral("-c"), script, QStringLiteral("bash"),
                           completionFile("sk.bash")} +
                   words);
    EXPECT_TRUE(bash.waitForFinished(10000));
    EXPECT_EQ(bash.exitCode(), 0) << bash.readAllStandardError().toStdString();
    QSet<QString> offered;
    for (const QString& line : QString::fromUtf8(bash.readAllStandardOutput()).split(u'\n')) {
        if (!line.isEmpty()) {
            offered.insert(line);
        }
    }
    return offered;
}

std::string describe(const QSet<QString>& set)
{
    QStringList list(set.begin(), set.end());
    list.sort();
    return list.join(u' ').toStdString();
}

TEST(BashCompletion, OffersEveryCommandAndTheOptionsBeforeIt)
{
    QSet<QString> expected = allCommands();
    expected += {QStringLiteral("--start"), QStringLiteral("--help"), QStringLiteral("--version")};
    EXPECT_EQ(bashCompletions({QStringLiteral("sk"), QString()}), expected)
        << describe(bashCompletions({QStringLiteral("sk"), QString()}));

    QSet<QString> lists;
    for (const QString& name : allCommands()) {
        if (name.startsWith(QStringLiteral("list"))) {
            lists.insert(name);
        }
    }
    EXPECT_EQ(
        bashCompletions({QStringLiteral("sk"), QStringLiteral("--start"), QStringLiteral("list")}),
        lists);
}

TEST(BashCompletion, OffersEachCommandsOptions)
{
    for (const sk::Command& command : sk::commands()) {
        const QSet<QString> offered =
            bashCompletions({QStringLiteral("sk"), toQString(command.name), QStringLiteral("--")});
        EXPECT_EQ(offered, expectedOptions(command))
            << command.name << ": " << describe(offered) << " instead of "
            << describe(expectedOptions(command));
    }
}

TEST(BashCompletion, OffersValuesAndFiles)
{
    EXPECT_EQ(bashCompletions({QStringLiteral("sk"), QStringLiteral("run"), QStringLiteral("X"),
                               QStringLiteral("--event"), QString()}),
              (QSet<QString>{QStringLiteral("clicked"), QStringLiteral("dragged")}));
    EXPECT_EQ(bashCompletions({QStringLiteral("sk"), QStringLiteral("grid-settings"),
                               QStringLiteral("G"), QStringLiteral("--switcher"), QString()}),
              (QSet<QString>{QStringLiteral("on"), QStringLiteral("off")}));
    EXPECT_TRUE(bashCompletions({QStringLiteral("sk"), QStringLiteral("list"),
                                 QStringLiteral("--grid"), QString()})
                    .isEmpty());
    EXPECT_EQ(
        bashCompletions({QStringLiteral("sk"), QStringLiteral("help"), QStringLiteral("inst")}),
        (QSet<QString>{QStringLiteral("install-action")}));

    QTemporaryDir dir;
    QFile(QDir(dir.path()).filePath(QStringLiteral("photo one.jpg"))).open(QIODevice::WriteOnly);
    QFile(QDir(dir.path()).filePath(QStringLiteral("notes.txt"))).open(QIODevice::WriteOnly);
    EXPECT_EQ(bashCompletions({QStringLiteral("sk"), QStringLiteral("run"), QStringLiteral("Copy"),
                               QStringLiteral("ph")},
                              dir.path()),
              QSet<QString>{QStringLiteral("photo one.jpg")});
    EXPECT_EQ(bashCompletions({QStringLiteral("sk"), QStringLiteral("add"), QStringLiteral("n")},
                              dir.path()),
              QSet<QString>{QStringLiteral("notes.txt")});
}

// The zsh completion's case blocks, by the command words in their labels.
QMap<QString, QString> zshBlocks(const QString& text)
{
    QMap<QString, QString> blocks;
    static const QRegularExpression label(QStringLiteral("^\\s+\\(([a-z|-]+)\\)$"));
    QStringList current;
    for (const QString& line : text.split(u'\n')) {
        const QRegularExpressionMatch match = label.match(line);
        if (match.hasMatch()) {
            current = match.captured(1).split(u'|');
            continue;
        }
        for (const QString& name : current) {
            blocks[name] += line + u'\n';
        }
        if (line.trimmed() == QStringLiteral(";;")) {
            current.clear();
        }
    }
    return blocks;
}

TEST(ZshCompletion, CoversEveryCommandAndOption)
{
    QFile file(completionFile("_sk"));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QString text = QString::fromUtf8(file.readAll());
    EXPECT_TRUE(text.startsWith(QStringLiteral("#compdef sk\n")));
    const QMap<QString, QString> blocks = zshBlocks(text);
    for (const sk::Command& command : sk::commands()) {
        const QString name = toQString(command.name);
        EXPECT_TRUE(text.contains(u'\'' + name + u':')) << "not described: " << command.name;
        ASSERT_TRUE(blocks.contains(name)) << "no arguments for " << command.name;
        QSet<QString> offered;
        static const QRegularExpression flagPattern(QStringLiteral("'\\*?(--[a-z-]+)\\["));
        for (const QRegularExpressionMatch& match : flagPattern.globalMatch(blocks[name])) {
            offered.insert(match.captured(1));
        }
        if (command.name == "help") {
            continue; // offers the commands
        }
        offered.insert(QStringLiteral("--help")); // from the shared $help entry
        EXPECT_EQ(offered, expectedOptions(command))
            << command.name << ": " << describe(offered) << " instead of "
            << describe(expectedOptions(command));
    }
}

TEST(ZshCompletion, IsValidZsh)
{
    const QString zsh = QStandardPaths::findExecutable(QStringLiteral("zsh"));
    if (zsh.isEmpty()) {
        GTEST_SKIP() << "zsh is not installed";
    }
    QProcess check;
    check.start(zsh, {QStringLiteral("-n"), completionFile("_sk")});
    ASSERT_TRUE(check.waitForFinished(10000));
    EXPECT_EQ(check.exitCode(), 0) << check.readAllStandardError().toStdString();
}

} // namespace
