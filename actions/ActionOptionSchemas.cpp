#include "actions/ActionOptionSchemas.h"

#include "core/UserUrl.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>

namespace {

using Kind = ActionOptionSpec::Kind;

QList<OptionSchema>& registry()
{
    static QList<OptionSchema> schemas;
    return schemas;
}

QString absolutePath(const QString& path, const QString& cwd)
{
    QString expanded = path;
    if (expanded == u"~" || expanded.startsWith(QStringLiteral("~/"))) {
        expanded = QDir::homePath() + expanded.mid(1);
    }
    if (QDir::isAbsolutePath(expanded) || cwd.isEmpty()) {
        return QDir::cleanPath(expanded);
    }
    return QDir::cleanPath(QDir(cwd).filePath(expanded));
}

std::optional<QString> booleanValue(const QString& value)
{
    const QString lower = value.trimmed().toLower();
    if (lower == u"1" || lower == u"true" || lower == u"yes") {
        return QStringLiteral("1");
    }
    if (lower == u"0" || lower == u"false" || lower == u"no") {
        return QStringLiteral("0");
    }
    return std::nullopt;
}

// The value as it is stored, or the reason it does not fit the option.
std::variant<QString, ActionOptionValidationError>
checkValue(const ActionOptionSpec& entry, const QString& value, const QString& cwd)
{
    auto error = [](const QString& message) { return ActionOptionValidationError{message}; };
    QString stored = value;
    switch (entry.kind) {
    case Kind::Integer: {
        bool ok = false;
        const qlonglong number = value.trimmed().toLongLong(&ok);
        if (!ok) {
            return error(QStringLiteral("Option '%1' must be a whole number, not '%2'.")
                             .arg(entry.key, value));
        }
        if ((entry.minimum && number < *entry.minimum) ||
            (entry.maximum && number > *entry.maximum)) {
            return error(QStringLiteral("Option '%1' must be between %2 and %3.")
                             .arg(entry.key)
                             .arg(entry.minimum.value_or(0))
                             .arg(entry.maximum.value_or(0)));
        }
        stored = QString::number(number);
        break;
    }
    case Kind::Boolean: {
        const std::optional<QString> flag = booleanValue(value);
        if (!flag) {
            return error(QStringLiteral("Option '%1' must be true or false, not '%2'.")
                             .arg(entry.key, value));
        }
        stored = *flag;
        break;
    }
    case Kind::Choice:
        if (!entry.choices.contains(value.trimmed().toLower())) {
            return error(QStringLiteral("Option '%1' must be one of: %2 (not '%3').")
                             .arg(entry.key, entry.choices.join(QStringLiteral(", ")), value));
        }
        stored = value.trimmed().toLower();
        break;
    case Kind::Path:
        if (value.trimmed().isEmpty()) {
            return error(QStringLiteral("Option '%1' needs a path.").arg(entry.key));
        }
        stored = absolutePath(value.trimmed(), cwd);
        break;
    case Kind::Url:
        if (!urlFromUserText(value)) {
            return error(
                QStringLiteral("Option '%1' must be a URL, not '%2'.").arg(entry.key, value));
        }
        stored = value.trimmed();
        break;
    case Kind::Text:
    case Kind::Secret:
        break;
    }
    if (!entry.pattern.isEmpty()) {
        const QRegularExpression pattern(QRegularExpression::anchoredPattern(entry.pattern));
        if (!pattern.match(stored).hasMatch()) {
            return error(QStringLiteral("Option '%1' does not match the pattern %2.")
                             .arg(entry.key, entry.pattern));
        }
    }
    return stored;
}

} // namespace

namespace ActionOptionSchemas {

void registerSchema(OptionSchema schema)
{
    for (const ActionOptionSpec& entry : std::as_const(schema.options)) {
        if (entry.keychainSecret) {
            schema.needsKeychainStorage = true;
            schema.keychainPasswordKey = entry.key;
        }
    }
    unregisterSchema(schema.name);
    registry() << std::move(schema);
}

void unregisterSchema(const QString& name)
{
    registry().removeIf([&](const OptionSchema& schema) { return schema.name == name; });
}

std::optional<OptionSchema> find(const QString& name)
{
    for (const OptionSchema& schema : std::as_const(registry())) {
        if (!name.isEmpty() && schema.name == name) {
            return schema;
        }
    }
    return std::nullopt;
}

QStringList names()
{
    QStringList all;
    for (const OptionSchema& schema : std::as_const(registry())) {
        all << schema.name;
    }
    return all;
}

std::optional<QList<ActionOptionSpec>> schema(const QString& optionsNib)
{
    const std::optional<OptionSchema> found = find(optionsNib);
    if (!found || found->options.isEmpty()) {
        return std::nullopt;
    }
    return found->options;
}

std::variant<ValidatedActionOptions, ActionOptionValidationError>
validate(const QString& optionsNib, const QMap<QString, QString>& options, const QString& cwd,
         const QString& actionType)
{
    const std::optional<OptionSchema> found = find(optionsNib);
    if (!found || found->options.isEmpty()) {
        return ActionOptionValidationError{
            QStringLiteral("'") + optionsNib +
            QStringLiteral("' is not supported by the command line.")};
    }
    QStringList keys;
    for (const ActionOptionSpec& entry : found->options) {
        keys << entry.key;
    }
    for (auto it = options.cbegin(); it != options.cend(); ++it) {
        if (!keys.contains(it.key())) {
            const QString forType = actionType.isEmpty()
                                        ? QString()
                                        : QStringLiteral("' for action type '") + actionType;
            return ActionOptionValidationError{QStringLiteral("Unknown option '") + it.key() +
                                               forType + QStringLiteral("'. Valid options are: ") +
                                               keys.join(QStringLiteral(", "))};
        }
    }
    ValidatedActionOptions result;
    for (const ActionOptionSpec& entry : found->options) {
        if (!options.contains(entry.key)) {
            if (entry.required) {
                return ActionOptionValidationError{
                    QStringLiteral("Option '%1' is required.").arg(entry.key)};
            }
            if (!entry.defaultValue.isEmpty()) {
                result.variables.insert(entry.key, entry.defaultValue);
            }
            continue;
        }
        const auto checked = checkValue(entry, options.value(entry.key), cwd);
        if (const auto* failure = std::get_if<ActionOptionValidationError>(&checked)) {
            return *failure;
        }
        const QString& value = std::get<QString>(checked);
        if (entry.keychainSecret) {
            result.secret = value;
        } else if (entry.keychainSecondarySecret) {
            result.secondarySecret = value;
        } else {
            result.variables.insert(entry.key, value);
        }
    }
    if (found->rules) {
        if (auto failure = found->rules(options, result.variables)) {
            return *failure;
        }
    }
    return result;
}

QString helpText(const QString& optionsNib)
{
    const std::optional<OptionSchema> found = find(optionsNib);
    if (!found || found->options.isEmpty()) {
        return {};
    }
    QString text;
    for (const ActionOptionSpec& entry : found->options) {
        QString line = QStringLiteral("  %1: %2").arg(entry.key, entry.help);
        if (!entry.choices.isEmpty()) {
            line += QStringLiteral(" [%1]").arg(entry.choices.join(u'|'));
        }
        if (entry.required) {
            line += QStringLiteral(" (required)");
        }
        if (!entry.defaultValue.isEmpty()) {
            line += QStringLiteral(" (default: %1)").arg(entry.defaultValue);
        }
        if (entry.keychainSecret || entry.keychainSecondarySecret) {
            line += QStringLiteral(" (kept in the keychain)");
        }
        text += line + u'\n';
    }
    return text;
}

void registerStandardSchemas()
{
    for (const char* name : {"ChooseFolder", "ChooseFolderRename"}) {
        OptionSchema schema;
        schema.name = QString::fromLatin1(name);
        ActionOptionSpec path;
        path.key = QStringLiteral("path");
        path.kind = Kind::Path;
        path.required = true;
        path.help = QStringLiteral("Destination folder");
        schema.options = {path};
        schema.rules = [](const QMap<QString, QString>&, const QMap<QString, QString>& values) {
            const QString folder = values.value(QStringLiteral("path"));
            return !folder.isEmpty() && !QFileInfo(folder).isDir()
                       ? std::optional(ActionOptionValidationError{
                             QStringLiteral("Option 'path' must name an existing folder: %1")
                                 .arg(folder)})
                       : std::nullopt;
        };
        registerSchema(schema);
    }
}

} // namespace ActionOptionSchemas
