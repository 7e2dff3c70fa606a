#pragma once

#include "tests/support/QtPrinting.h"

#include <QString>
#include <QStringList>
#include <QTemporaryDir>

// A private SKELVO_HOME for one test: every support, config and runtime folder lands in a
// temporary folder that is removed afterwards. The previous value is restored.
class TestHome {
public:
    TestHome();
    ~TestHome();
    TestHome(const TestHome&) = delete;
    TestHome& operator=(const TestHome&) = delete;

    QString path() const { return m_dir.path(); }
    // Writes a file (creating folders) and returns its full path.
    QString writeFile(const QString& relativePath, const QByteArray& contents) const;

private:
    QTemporaryDir m_dir;
    QByteArray m_previousHome;
    bool m_hadHome = false;
};

// Collects log lines while alive.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    const QStringList& lines() const { return m_lines; }
    bool contains(const QString& text) const;

private:
    int m_token;
    QStringList m_lines;
};
