#include "actions/OptionSheets.h"

namespace {

QMap<QString, OptionSheetInfo>& sheets()
{
    static QMap<QString, OptionSheetInfo> registered;
    return registered;
}

} // namespace

namespace OptionSheets {

void registerSheet(const OptionSheetInfo& info)
{
    sheets().insert(info.name, info);
}

std::optional<OptionSheetInfo> find(const QString& name)
{
    const auto it = sheets().constFind(name);
    if (it == sheets().constEnd() || name.isEmpty()) {
        return std::nullopt;
    }
    return *it;
}

void registerStandardSheets()
{
    // The folder the file actions copy or move into.
    for (const char* name : {"ChooseFolder", "ChooseFolderRename"}) {
        OptionSheetInfo sheet;
        sheet.name = QString::fromLatin1(name);
        sheet.commandLineOptions = {QStringLiteral("path")};
        registerSheet(sheet);
    }
}

void unregisterSheet(const QString& name)
{
    sheets().remove(name);
}

} // namespace OptionSheets
