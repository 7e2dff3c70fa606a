#include "events/KeyModifiers.h"

#include "actions/ActionFile.h"

KeyModifiers KeyModifiers::fromQt(Qt::KeyboardModifiers modifiers)
{
    KeyModifiers keys;
    keys.option = modifiers.testFlag(Qt::AltModifier);
    keys.command = modifiers.testFlag(Qt::MetaModifier);
    keys.shift = modifiers.testFlag(Qt::ShiftModifier);
    keys.control = modifiers.testFlag(Qt::ControlModifier);
    return keys;
}

QString KeyModifiers::selectFor(const ActionFile& action) const
{
    if (option && !command && !shift && !control && action.optionKeyModifierEnabled()) {
        return Option;
    }
    if (command && !option && !shift && !control && action.commandKeyModifierEnabled()) {
        return Command;
    }
    if (shift && !option && !command && !control && action.shiftKeyModifierEnabled()) {
        return Shift;
    }
    if (control && !option && !command && !shift && action.controlKeyModifierEnabled()) {
        return Control;
    }
    return {};
}
