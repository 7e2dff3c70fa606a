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

void unregisterSheet(const QString& name)
{
    sheets().remove(name);
}

} // namespace OptionSheets
