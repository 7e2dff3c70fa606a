#include "events/KeyModifiers.h"

#include "actions/ActionFile.h"
#include "actions/ActionFileParser.h"

#include <gtest/gtest.h>

TEST(KeyModifierSelection, OneEnabledKeyAloneSelectsItself)
{
    struct Row {
        const char* enabled; // the KeyModifiers header line
        KeyModifiers held;   // option, command, shift, control
        const char* selected;
    };
    const Row rows[] = {
        {"option, Command, SHIFT, Control", {true, false, false, false}, "Option"},
        {"option, Command, SHIFT, Control", {false, true, false, false}, "Command"},
        {"option, Command, SHIFT, Control", {false, false, true, false}, "Shift"},
        {"option, Command, SHIFT, Control", {false, false, false, true}, "Control"},
        {"option, Command, SHIFT, Control", {false, false, false, false}, ""},
        {"Option, Command, Shift, Control", {true, false, true, false}, ""},
        {"Option, Command, Shift, Control", {true, true, false, false}, ""},
        {"Option, Command, Shift, Control", {false, true, false, true}, ""},
        {"Option, Command, Shift, Control", {false, false, true, true}, ""},
        {"Option", {false, false, true, false}, ""},
        {"", {true, false, false, false}, ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.enabled);
        ActionFile action;
        ActionFileParser::parseHeader(
            QStringLiteral(
                "# Skelvo Action Info\n# Name: A\n# Handles: Files\n# KeyModifiers: %1\n")
                .arg(QString::fromLatin1(row.enabled)),
            action);
        EXPECT_EQ(row.held.selectFor(action), QString::fromLatin1(row.selected));
    }
    EXPECT_EQ(KeyModifiers::fromQt(Qt::AltModifier | Qt::MetaModifier),
              (KeyModifiers{true, true, false, false}));
    EXPECT_EQ(KeyModifiers::fromQt(Qt::ShiftModifier | Qt::ControlModifier),
              (KeyModifiers{false, false, true, true}));
    EXPECT_EQ(KeyModifiers::fromQt(Qt::KeypadModifier), KeyModifiers{});
}
