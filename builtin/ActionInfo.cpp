#include "builtin/ActionInfo.h"

#include "actions/ActionFileParser.h"

ActionFile builtInActionFile(const ActionInfo& info)
{
    ActionFile record;
    record.isBuiltInAction = true;
    record.metaDataNotFound = false;
    record.actionName = info.name;
    record.actionDescription = info.actionDescription;
    record.optionsNib = info.optionsNib;
    record.defaultPort = info.defaultPort;
    record.builtInIcon = info.iconPath;
    record.skipConfig = info.skipConfig;
    record.useSelectedItemNameAndIcon = info.usesSelectedItemNameAndIcon;
    record.isUserScript = !info.menuCategory.value_or(0);
    QStringList types;
    if (info.acceptsFiles()) {
        types << DragTypes::Files;
    }
    if (info.acceptsText()) {
        types << DragTypes::Text;
    }
    record.setHandles(types);
    if (!info.keyModifiers.isEmpty()) {
        record.applyHeaderField(QStringLiteral("KeyModifiers"), info.keyModifiers);
    }
    QString eventsText;
    if (info.acceptsDrags() && info.acceptsClicks()) {
        eventsText = QStringLiteral("Dragged,Clicked");
    } else if (info.acceptsClicks()) {
        eventsText = QStringLiteral("Clicked");
    } else if (info.acceptsDrags()) {
        eventsText = QStringLiteral("Dragged");
    }
    if (info.supportsConnectionTest()) {
        eventsText += QStringLiteral(",TestConnection");
    }
    record.applyHeaderField(QStringLiteral("Events"), eventsText);
    return record;
}

void provideBuiltInActions(ActionFileParser& parser, QList<ActionInfo> infos)
{
    parser.setBuiltInActionProvider([infos = std::move(infos)] {
        ActionFileList records;
        for (const ActionInfo& info : infos) {
            records << std::make_shared<ActionFile>(builtInActionFile(info));
        }
        return records;
    });
}
