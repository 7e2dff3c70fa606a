#pragma once

#include "core/Identifiers.h"
#include "events/KeyModifiers.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <functional>

// What a drop (or the clipboard) offers, read off the desktop's drag data as plain values so
// that the rules run without a display.
struct DragInfo {
    // Hands the files to `arrived` once they are written; may call it later.
    using PromiseReceiver = std::function<void(std::function<void(const QStringList&)> arrived)>;

    QStringList formats;   // MIME formats, as offered
    QStringList filePaths; // local paths of the file URLs, in order (other URLs left out)
    QString text;          // the plain string, when offered
    QByteArray imageData;  // the clipboard's image as PNG, when it holds one

    bool isGeneralPasteboard = false; // the clipboard rather than a drag
    bool fromWithinSkelvo = false;    // the drag started inside the application
    // The Drop Bar whose stack the drag came out of; 0 for none.
    DropbarId sourceDropbarId = Identifiers::None;
    KeyModifiers modifiers;     // held at the drop
    bool copyActivated = false; // the source offers only copying, or the grid view chose it

    // Fetches files that the drag only promised (set by the desktop for such drags).
    PromiseReceiver receivePromisedFiles;
};
