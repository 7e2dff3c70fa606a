#include "core/Settings.h"

#include "tests/support/TestHome.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>

#include <gtest/gtest.h>

TEST(Settings, LenientBooleansOnlyNoIsFalse)
{
    TestHome home;
    Settings settings(QDir(home.path()).filePath(QStringLiteral("s.json")));
    const std::pair<QJsonValue, bool> rows[] = {
        {QStringLiteral("no"), false},
        {QStringLiteral("NO"), false},
        {QStringLiteral("No"), false},
        {QStringLiteral("false"), true},
        {QStringLiteral("0"), true},
        {QStringLiteral(""), true},
        {QStringLiteral("yes"), true},
        {true, true},
        {false, false},
        {1, true},
        {0, false},
    };
    for (const auto& [value, expected] : rows) {
        settings.setValue(Settings::KeepTaskDescriptionFiles, value);
        EXPECT_EQ(settings.boolValue(Settings::KeepTaskDescriptionFiles), expected)
            << QJsonDocument(QJsonArray{value}).toJson().constData();
    }
    EXPECT_FALSE(settings.boolValue(QStringLiteral("NeverSet")));
}

TEST(Settings, DefaultsAnswerUntilSetAndAreNotWritten)
{
    TestHome home;
    const QString path = QDir(home.path()).filePath(QStringLiteral("s.json"));
    const QJsonArray folders{QJsonObject{{QStringLiteral("path"), QStringLiteral("/tmp")}}};
    {
        Settings settings(path);
        settings.registerDefaults({{Settings::PlaySounds, true}, {Settings::SelectedGridId, 3}});
        EXPECT_TRUE(settings.boolValue(Settings::PlaySounds));
        EXPECT_EQ(settings.integerValue(Settings::SelectedGridId), 3);
        EXPECT_FALSE(settings.contains(Settings::PlaySounds));
        settings.setValue(Settings::PlaySounds, QStringLiteral("No"));
        settings.setValue(QStringLiteral("MonitoredFolders"), folders);
    }
    Settings reread(path);
    EXPECT_FALSE(reread.boolValue(Settings::PlaySounds));
    EXPECT_FALSE(reread.contains(Settings::SelectedGridId));
    EXPECT_EQ(reread.value(QStringLiteral("MonitoredFolders")), folders);
    reread.remove(Settings::PlaySounds);
    EXPECT_FALSE(Settings(path).contains(Settings::PlaySounds));
}

TEST(Settings, DamagedFileIsKeptAsideNotLost)
{
    TestHome home;
    const QString path = home.writeFile(QStringLiteral("s.json"), "{ not json");
    Settings settings(path);
    EXPECT_FALSE(settings.contains(Settings::PlaySounds));
    QFile aside(path + QStringLiteral(".damaged"));
    ASSERT_TRUE(aside.open(QIODevice::ReadOnly));
    EXPECT_EQ(aside.readAll(), QByteArray("{ not json"));
}
