#pragma once

#include "core/Identifiers.h"

#include <QByteArray>
#include <QString>

#include <functional>

class ActionFile;
class GridAction;

// The icon cache of grid actions: one file per action id in "Icons/5" of the support
// folder, holding the encoded image as it was given. Images are handled as data here; the
// desktop, which can draw, may add providers for file previews and for the icons that the
// desktop's theme shows for arbitrary files.
class Icons {
public:
    using Provider = std::function<QByteArray(const QString& path)>;
    using PreviewProvider = std::function<QByteArray(const QString& path, int size)>;

    QString iconsDirectory() const;
    QString iconPathForId(ActionId actionId) const;

    // The action's cached icon, else its bundled one, else the icon of its action.
    QByteArray getIcon(const GridAction& action) const;
    bool saveIcon(const QByteArray& icon, ActionId actionId) const;
    bool deleteIcon(ActionId actionId) const;

    static QByteArray iconForActionFile(const ActionFile& actionFile);
    // The icon the desktop shows for the file (a provider of the desktop).
    QByteArray workspaceIconForPath(const QString& path) const;
    // A preview image of the file at about `size` pixels (a provider of the desktop).
    QByteArray previewImageForPath(const QString& path, int size) const;

    void setWorkspaceIconProvider(Provider provider) { m_workspaceProvider = std::move(provider); }
    void setPreviewProvider(PreviewProvider provider) { m_previewProvider = std::move(provider); }

private:
    Provider m_workspaceProvider;
    PreviewProvider m_previewProvider;
};
