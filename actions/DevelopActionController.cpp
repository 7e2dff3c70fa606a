#include "actions/DevelopActionController.h"

#include "core/AlertHelper.h"
#include "core/FileOperations.h"
#include "core/Log.h"
#include "core/Settings.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStringDecoder>

DevelopActionController::DevelopActionController(ActionFileParser& parser, Settings& settings,
                                                 AlertHelper& alerts)
    : m_parser(parser)
    , m_settings(settings)
    , m_alerts(alerts)
{}

std::optional<QString> DevelopActionController::refusalFor(const DevelopActionRequest& request)
{
    if (!request.clicked && !request.dragged) {
        return QStringLiteral("Action must handle at least one event.");
    }
    if (request.dragged && !request.handlesFiles && !request.handlesText) {
        return QStringLiteral("Action must handle at least one dragging type.");
    }
    if (m_parser.getActionWithType(request.name)) {
        return QStringLiteral(
            "An action already exists with the same name. Action names must be unique.");
    }
    return std::nullopt;
}

QString DevelopActionController::headerText(const DevelopActionRequest& request)
{
    const ActionFile* copied = request.copiedFrom.get();
    QString header = QStringLiteral("# Skelvo Action Info\n");
    header += QStringLiteral("# Name: %1\n").arg(request.name);
    header += QStringLiteral("# Description: %1\n")
                  .arg(QString(request.description).replace(u'\n', QStringLiteral("\\n")));
    if (request.dragged) {
        const QString handles = request.handlesFiles && request.handlesText
                                    ? QStringLiteral("Files, Text")
                                : request.handlesFiles ? QStringLiteral("Files")
                                                       : QStringLiteral("Text");
        header += QStringLiteral("# Handles: %1\n").arg(handles);
    }
    header += QStringLiteral("# Creator: %1\n").arg(request.creator);
    header += QStringLiteral("# URL: %1\n").arg(request.url);
    if (copied) {
        auto line = [&header](const char* key, const QString& value) {
            if (!value.isEmpty()) {
                header += QStringLiteral("# %1: %2\n").arg(QString::fromLatin1(key), value);
            }
        };
        line("OptionsNIB", copied->optionsNib);
        line("AuthScope", copied->authScope);
        if (copied->skipValidation) {
            header += QStringLiteral("# SkipValidation: Yes\n");
        }
        if (copied->useSelectedItemNameAndIcon) {
            header += QStringLiteral("# UseSelectedItemNameAndIcon: Yes\n");
        }
        line("OptionsTitle", copied->optionsTitle);
        line("IconURL", copied->iconUrl);
        line("DefaultPort", copied->defaultPort);
    }
    const QString events = request.clicked && request.dragged ? QStringLiteral("Clicked, Dragged")
                           : request.dragged                  ? QStringLiteral("Dragged")
                                                              : QStringLiteral("Clicked");
    header += QStringLiteral("# Events: %1\n").arg(events);
    if (request.keyModifiersDefined) {
        header += QStringLiteral("# KeyModifiers: %1\n")
                      .arg(request.keyModifiers.join(QStringLiteral(", ")));
    }
    auto yesNo = [](bool value) { return value ? QStringLiteral("Yes") : QStringLiteral("No"); };
    header += QStringLiteral("# SkipConfig: %1\n").arg(yesNo(request.skipConfig));
    header += QStringLiteral("# RunsSandboxed: %1\n").arg(yesNo(request.runsSandboxed));
    const QString version =
        copied && !copied->version.isEmpty() ? copied->version : QStringLiteral("1.0");
    const QString minimum = copied && !copied->minSkelvoVersion.isEmpty() ? copied->minSkelvoVersion
                                                                          : QStringLiteral("4.0");
    header += QStringLiteral("# Version: %1\n").arg(version);
    header += QStringLiteral("# MinSkelvoVersion: %1\n").arg(minimum);
    if (copied) {
        if (!copied->rubyPath.isEmpty()) {
            header += QStringLiteral("# RubyPath: %1\n").arg(copied->rubyPath);
        }
        if (!copied->pythonPath.isEmpty()) {
            header += QStringLiteral("# PythonPath: %1\n").arg(copied->pythonPath);
        }
        if (copied->forceX86Ruby) {
            header += QStringLiteral("# ForceX86Ruby: Yes\n");
        }
    }
    return header;
}

QString DevelopActionController::rewrittenText(const QString& header, const QString& scriptText,
                                               bool isPythonScript, bool disableComments)
{
    // The fixed indexes below follow the layout of the two shipped templates: they are the
    // blank lines that only separate comment blocks.
    const qsizetype lastSeparator = isPythonScript ? 35 : 33;
    QString output = header;
    bool insideOldHeader = false;
    bool pastOldHeader = false;
    const QStringList lines = scriptText.split(u'\n');
    for (qsizetype index = 0; index < lines.size(); ++index) {
        const QString& line = lines.at(index);
        if (!pastOldHeader) {
            if (line.startsWith(QStringLiteral("# "))) {
                insideOldHeader = true;
            }
            if (index >= 6 && insideOldHeader && line.trimmed().isEmpty()) {
                pastOldHeader = true;
            } else {
                continue;
            }
        }
        if (disableComments) {
            const QString trimmed = line.trimmed();
            if (trimmed.startsWith(QStringLiteral("# "))) {
                continue;
            }
            if (trimmed.isEmpty() && ((index >= 16 && index <= 22) || index == lastSeparator)) {
                continue;
            }
        }
        output += line + u'\n';
    }
    if (output.endsWith(u'\n')) {
        output.chop(1);
    }
    return output;
}

bool DevelopActionController::rewriteMetaData(const QString& header, const QString& path,
                                              bool disableComments)
{
    QFile source(path);
    if (!source.open(QIODevice::ReadOnly)) {
        Log::error(QStringLiteral("Error reading file at %1 in %2\n%3")
                       .arg(path, QStringLiteral("rewriteMetaData"), source.errorString()));
        return false;
    }
    QStringDecoder decoder(QStringDecoder::Utf8);
    const QString text = decoder.decode(source.readAll());
    source.close();
    if (decoder.hasError()) {
        Log::error(QStringLiteral("Error reading file at %1 in %2\n%3")
                       .arg(path, QStringLiteral("rewriteMetaData"),
                            QStringLiteral("The file is not valid UTF-8 text.")));
        return false;
    }
    const QString output =
        rewrittenText(header, text, path.endsWith(QStringLiteral(".py")), disableComments);
    QSaveFile target(path);
    if (!target.open(QIODevice::WriteOnly) || target.write(output.toUtf8()) < 0 ||
        !target.commit()) {
        Log::error(QStringLiteral("Error writing action file %1 in %2\n%3")
                       .arg(path, QStringLiteral("rewriteMetaData"), target.errorString()));
        return false;
    }
    return true;
}

ActionFilePtr DevelopActionController::createAction(const DevelopActionRequest& request,
                                                    bool includeComments, QString* error)
{
    if (const auto refusal = refusalFor(request)) {
        if (error) {
            *error = *refusal;
        }
        return nullptr;
    }
    const bool python = request.language == DevelopActionRequest::Language::Python;
    const ActionFilePtr templ =
        m_parser.getActionWithType(python ? PythonTemplateName : RubyTemplateName);
    if (!templ || !templ->isBundle || templ->isUserScript) {
        m_alerts.showCriticalAlertWithTitle(QStringLiteral("Could not find action template."),
                                            QStringLiteral("You should re-install Skelvo."));
        if (error) {
            *error = QStringLiteral("Could not find action template.");
        }
        return nullptr;
    }
    m_settings.setValue(Settings::DevelopPreferredLanguage,
                        python ? QStringLiteral("Python") : QStringLiteral("Ruby"));
    m_settings.setValue(Settings::IncludeDevelopComments, includeComments);

    const QString destination =
        QDir(m_parser.userActionsDirectory()).filePath(request.name + QStringLiteral(".skbundle"));
    QString reason;
    if (!FileOperations::removeRecursively(destination, &reason) ||
        !FileOperations::copyRecursively(templ->taskPath, destination, &reason)) {
        Log::error(QStringLiteral("Error creating action %1: %2").arg(destination, reason));
        if (error) {
            *error = reason;
        }
        return nullptr;
    }
    const QString script =
        QDir(destination)
            .filePath(python ? QStringLiteral("action.py") : QStringLiteral("action.rb"));
    if (!rewriteMetaData(headerText(request), script, !includeComments)) {
        if (error) {
            *error = QStringLiteral("Could not write the new action's script.");
        }
        return nullptr;
    }
    m_parser.invalidateActionsCache();
    return m_parser.getActionWithTaskPath(destination);
}
