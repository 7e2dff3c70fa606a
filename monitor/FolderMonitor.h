#pragma once

#include "platform/FileBookmark.h"

#include <QList>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>

#include <chrono>
#include <memory>
#include <optional>

class QThread;

// The lstat attributes of a file that change while it is written. Two states are equal only
// when every field is.
struct FileState {
    FileIdentity identity;
    qint64 size = 0;
    qint64 modifiedNs = 0;
    qint64 changedNs = 0;
    bool operator==(const FileState&) const = default;
};

// Watches one folder for files that arrive and reports each once it has settled: its
// identity, size and times unchanged for the settle interval. Files present when the watch
// starts, subfolders and files already reported never count; a rename keeps a file's
// identity and is not an arrival. Local folders are watched with inotify, so an idle folder
// costs nothing and the check timer runs only while files are pending; a folder on a network
// file system, where inotify is blind, is listed every check interval. The watching runs on
// the monitor's own thread; its signals arrive on the thread that created it.
class FolderMonitor : public QObject {
    Q_OBJECT
public:
    struct Options {
        std::chrono::milliseconds settleInterval{2000};
        std::chrono::milliseconds checkInterval{1000};
        // List the folder every check interval even where inotify works.
        bool forcePolling = false;
        // Identities known from an earlier run: with it, files present at start whose identity
        // is not in it are arrivals (catching up on what came while nothing watched).
        std::optional<QSet<FileIdentity>> knownBefore;
    };

    explicit FolderMonitor(QString folder, QObject* parent = nullptr);
    FolderMonitor(QString folder, Options options, QObject* parent = nullptr);
    ~FolderMonitor() override; // stops

    // Lists the folder (what is there now never triggers) and starts watching. False, with
    // the system's reason in `error`, when the folder cannot be opened or listed.
    bool start(QString* error = nullptr);
    void stop();
    bool isRunning() const;
    bool isPolling() const;
    const QString& folder() const { return m_folder; }
    // Identities present at start (arrivals caught up on excluded) and delivered since; safe
    // from any thread.
    QSet<FileIdentity> knownIdentities() const;

Q_SIGNALS:
    // One batch per check: the absolute paths of the files that settled, with their
    // identities in the same order.
    void filesSettled(const QStringList& paths, const QList<FileIdentity>& identities);
    // The folder was deleted, moved or unmounted; the watch has stopped.
    void folderGone();

private:
    class Worker;
    QString m_folder;
    Options m_options;
    std::unique_ptr<Worker> m_worker; // kept after stop() for knownIdentities()
    std::unique_ptr<QThread> m_thread;
};
