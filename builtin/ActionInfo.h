#pragma once

#include "actions/ActionFile.h"

#include <QList>
#include <QString>

#include <functional>
#include <optional>

class ActionFileParser;
class BuiltInAction;

// One entry of the built-in action catalogue: what the action accepts and how it is set up.
struct ActionInfo {
    enum class Handles { Files = 0, Text = 1, Nothing = 2 };
    enum class Event { Clicked = 0, Dragged = 1, TestConnection = 2 };

    QString name; // persistent identity: grid actions refer to a built-in by this name
    QString actionDescription;
    QList<Handles> handles;
    QList<Event> events;
    std::optional<int> menuCategory;
    QString iconPath;
    QString optionsNib; // empty: no configuration panel
    bool usesSelectedItemNameAndIcon = false;
    bool skipConfig = false;
    QString defaultPort;
    QString keyModifiers;
    // Makes a fresh instance of the action's class (the runner owns it); empty when the
    // action's implementation is not part of this build.
    std::function<BuiltInAction*()> actionClass;

    bool acceptsFiles() const { return handles.contains(Handles::Files); }
    bool acceptsText() const { return handles.contains(Handles::Text); }
    bool acceptsClicks() const { return events.contains(Event::Clicked); }
    bool acceptsDrags() const { return events.contains(Event::Dragged); }
    bool supportsConnectionTest() const { return events.contains(Event::TestConnection); }
};

// The record the parser lists for a built-in action, as if its header said the same.
ActionFile builtInActionFile(const ActionInfo& info);
// Lets the parser list these built-in actions after the bundles.
void provideBuiltInActions(ActionFileParser& parser, QList<ActionInfo> infos);
