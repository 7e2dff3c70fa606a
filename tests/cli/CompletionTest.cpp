// The shell completions are valid scripts that offer every command of sk's command table.
#include "cli/Commands.h"

#include <QFile>
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

TEST(Completion, BashOffersEveryCommand)
{
    QProcess bash;
    bash.start("bash",
               {"-c",
                QStringLiteral("source \"$1\" && COMP_WORDS=(sk '') COMP_CWORD=1 && _sk sk '' sk "
                               "&& printf '%s\\n' \"${COMPREPLY[@]}\""),
                "bash", Completions + "/sk.bash"});
    ASSERT_TRUE(bash.waitForFinished(10000));
    EXPECT_EQ(bash.exitCode(), 0) << bash.readAllStandardError().toStdString();
    const QStringList offered =
        QString::fromUtf8(bash.readAllStandardOutput()).split(u'\n', Qt::SkipEmptyParts);
    QSet<QString> expected = allCommands();
    expected += {"--start", "--help", "--version"};
    EXPECT_EQ(QSet<QString>(offered.begin(), offered.end()), expected)
        << offered.join(u' ').toStdString();
}

TEST(Completion, ZshIsValidAndDescribesEveryCommand)
{
    QFile file(Completions + "/_sk");
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QString text = QString::fromUtf8(file.readAll());
    for (const QString& name : allCommands()) {
        EXPECT_TRUE(text.contains(u'\'' + name + u':')) << name.toStdString();
    }
    const QString zsh = QStandardPaths::findExecutable("zsh");
    if (!zsh.isEmpty()) {
        EXPECT_EQ(QProcess::execute(zsh, QStringList{"-n", file.fileName()}), 0);
    }
}

} // namespace
