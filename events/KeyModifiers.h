#pragma once

#include <QString>
#include <qnamespace.h>

class ActionFile;

// The modifier keys held during a drop. The desktop maps its keys so: Alt is "Option",
// Super (Meta) is "Command", then Shift and Control as they are.
struct KeyModifiers {
    static inline const QString Option = QStringLiteral("Option");
    static inline const QString Command = QStringLiteral("Command");
    static inline const QString Shift = QStringLiteral("Shift");
    static inline const QString Control = QStringLiteral("Control");

    bool option = false;
    bool command = false;
    bool shift = false;
    bool control = false;

    static KeyModifiers fromQt(Qt::KeyboardModifiers modifiers);

    // The modifier an action reacts to: the one key held alone ("Option", "Command", "Shift"
    // or "Control") when the action enables it; empty otherwise, also for two keys at once.
    QString selectFor(const ActionFile& action) const;

    bool operator==(const KeyModifiers&) const = default;
};
