#include "events/KeyModifiers.h"

#include "actions/ActionFile.h"
#include "actions/ActionFileParser.h"

#include <gtest/gtest.h>

namespace {

ActionFile withModifiers(const QString& line)
{
    ActionFile action;
    ActionFileParser::parseHeader(
        QStringLiteral("# Skelvo Action Info\n# Name: A\n# Handles: Files\n%1\n").arg(line),
        action);
    return action;
}

KeyModifiers held(bool option, bool command, bool shift, bool control)
{
    return KeyModifiers{option, command, shift, control};
}

} // namespace

TEST(KeyModifierSelection, EachKeyAloneSelectsItselfWhenTheActionEnablesIt)
{
    const ActionFile all =
        withModifiers(QStringLiteral("# KeyModifiers: option, Command, SHIFT, Control"));
    EXPECT_EQ(held(true, false, false, false).selectFor(all), QStringLiteral("Option"));
    EXPECT_EQ(held(false, true, false, false).selectFor(all), QStringLiteral("Command"));
    EXPECT_EQ(held(false, false, true, false).selectFor(all), QStringLiteral("Shift"));
    EXPECT_EQ(held(false, false, false, true).selectFor(all), QStringLiteral("Control"));
    EXPECT_EQ(held(false, false, false, false).selectFor(all), QString());
}

TEST(KeyModifierSelection, TwoKeysTogetherSelectNothing)
{
    const ActionFile all =
        withModifiers(QStringLiteral("# KeyModifiers: Option, Command, Shift, Control"));
    EXPECT_EQ(held(true, false, true, false).selectFor(all), QString());
    EXPECT_EQ(held(true, true, false, false).selectFor(all), QString());
    EXPECT_EQ(held(false, true, false, true).selectFor(all), QString());
    EXPECT_EQ(held(true, true, true, true).selectFor(all), QString());
}

TEST(KeyModifierSelection, AKeyTheActionDoesNotEnableSelectsNothing)
{
    const ActionFile option = withModifiers(QStringLiteral("# KeyModifiers: Option"));
    EXPECT_EQ(held(true, false, false, false).selectFor(option), QStringLiteral("Option"));
    EXPECT_EQ(held(false, false, true, false).selectFor(option), QString());
    EXPECT_EQ(held(false, true, false, false).selectFor(option), QString());
    const ActionFile none = withModifiers(QString());
    EXPECT_EQ(held(true, false, false, false).selectFor(none), QString());
}

TEST(KeyModifierSelection, TheDesktopsKeysMapOntoTheFourNames)
{
    EXPECT_EQ(KeyModifiers::fromQt(Qt::AltModifier), held(true, false, false, false));
    EXPECT_EQ(KeyModifiers::fromQt(Qt::MetaModifier), held(false, true, false, false));
    EXPECT_EQ(KeyModifiers::fromQt(Qt::ShiftModifier), held(false, false, true, false));
    EXPECT_EQ(KeyModifiers::fromQt(Qt::ControlModifier), held(false, false, false, true));
    EXPECT_EQ(KeyModifiers::fromQt(Qt::AltModifier | Qt::ShiftModifier),
              held(true, false, true, false));
    EXPECT_EQ(KeyModifiers::fromQt(Qt::KeypadModifier), KeyModifiers{});
}
