// The shell completions are valid scripts that offer every command of sk's command table.
#include "cli/Commands.h"

#include <QFile>
#include <QMap>
#include <QProcess>
#include <QSet>
#include <QStandardPaths>

#include <gtest/gtest.h>

namespace {

const QString Completions = QStringLiteral(SK_COMPLETIONS_DIR);

QSet<QString> allCommands()
{
    QSet<QString> names;
    for (const sk::Command& command : sk::commands()) {
        names.insert(QString::fromUtf8(command.name.data(), command.name.size()));
    }
    return names;
}

// The words bash offers after `sk WORDS`.
QSet<QString> bashOffers(const QString& words)
{
    QProcess bash;
    bash.start("bash", {"-c",
                        QStringLiteral("source \"$1\" && COMP_WORDS=(sk %1 '') && "
                                       "COMP_CWORD=$((${#COMP_WORDS[@]} - 1)) && _sk && "
                                       "printf '%s\\n' \"${COMPREPLY[@]}\"")
                            .arg(words),
                        "bash", Completions + "/sk.bash"});
    EXPECT_TRUE(bash.waitForFinished(10000));
    EXPECT_EQ(bash.exitCode(), 0) << bash.readAllStandardError().toStdString();
    const QStringList offered =
        QString::fromUtf8(bash.readAllStandardOutput()).split(u'\n', Qt::SkipEmptyParts);
    return {offered.begin(), offered.end()};
}

TEST(Completion, BashOffersEveryCommand)
{
    // A two-word command ("monitor add") is offered a word at a time.
    QMap<QString, QSet<QString>> expected{{QString(), {"--start", "--help", "--version"}}};
    for (const QString& name : allCommands()) {
        const QString family = name.contains(u' ') ? name.section(u' ', 0, 0) : QString();
        expected[QString()].insert(name.section(u' ', 0, 0));
        if (!family.isEmpty()) {
            expected[family].insert(name.section(u' ', 1));
        }
    }
    for (auto it = expected.cbegin(); it != expected.cend(); ++it) {
        EXPECT_EQ(bashOffers(it.key()), it.value()) << "after sk " << it.key().toStdString();
    }
}

TEST(Completion, ZshIsValidAndDescribesEveryCommand)
{
    QFile file(Completions + "/_sk");
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QString text = QString::fromUtf8(file.readAll());
    for (const QString& name : allCommands()) {
        // A two-word command is described by its second word, in its family's list.
        const qsizetype list =
            name.contains(u' ') ? text.indexOf(name.section(u' ', 0, 0) + "_commands=(") : 0;
        EXPECT_GE(list, 0) << name.toStdString();
        EXPECT_GE(text.indexOf(u'\'' + name.section(u' ', -1) + u':', list), 0)
            << name.toStdString();
    }
    const QString zsh = QStandardPaths::findExecutable("zsh");
    if (!zsh.isEmpty()) {
        EXPECT_EQ(QProcess::execute(zsh, QStringList{"-n", file.fileName()}), 0);
    }
}

} // namespace
