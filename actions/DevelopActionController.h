#pragma once

#include "actions/ActionFile.h"
#include "actions/ActionFileParser.h"

#include <QString>
#include <QStringList>

#include <optional>

// What the develop-action sheet asks of the user.
struct DevelopActionRequest {
    enum class Language { Ruby, Python };

    QString name;
    QString description;
    QString creator;
    QString url;
    bool clicked = true;
    bool dragged = true;
    bool handlesFiles = true;
    bool handlesText = false;
    bool keyModifiersDefined = false;
    QStringList keyModifiers;
    bool skipConfig = false;
    bool runsSandboxed = true;
    Language language = Language::Ruby;
    ActionFilePtr copiedFrom; // set when the new action copies an existing one
};

class AlertHelper;
class Settings;

// Creates a new action from one of the two shipped templates with a header written from
// the sheet, and rewrites headers of existing scripts.
class DevelopActionController {
public:
    static inline const QString RubyTemplateName = QStringLiteral("Custom Action Ruby Template");
    static inline const QString PythonTemplateName =
        QStringLiteral("Custom Action Python Template");

    DevelopActionController(ActionFileParser& parser, Settings& settings, AlertHelper& alerts);

    // The sheet's refusal message for the request, if it must refuse.
    std::optional<QString> refusalFor(const DevelopActionRequest& request);

    // The header lines for the request, each ending in "\n".
    static QString headerText(const DevelopActionRequest& request);

    // Replaces the header of the script at `path` with `header`. With comments disabled the
    // template's comment lines and the blank lines that only separated them are dropped.
    static bool rewriteMetaData(const QString& header, const QString& path, bool disableComments);
    // The rewrite as a pure function of the script text (the index rules need the file name).
    static QString rewrittenText(const QString& header, const QString& scriptText,
                                 bool isPythonScript, bool disableComments);

    // Copies the template into the user actions folder under the new name with the new
    // header. Returns the new record, or none with `error` set to the refusal (alerts for a
    // missing template are shown here).
    ActionFilePtr createAction(const DevelopActionRequest& request, bool includeComments,
                               QString* error = nullptr);

private:
    ActionFileParser& m_parser;
    Settings& m_settings;
    AlertHelper& m_alerts;
};
