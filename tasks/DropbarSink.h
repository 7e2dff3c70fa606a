#pragma once

#include <QStringList>

#include <functional>

// Where files that an action hands to the Drop Bar go. The Drop Bar controller sets
// itself as the adder; until one exists the paths are logged and dropped.
class DropbarSink {
public:
    using Adder = std::function<void(const QStringList&)>;

    void setAdder(Adder adder) { m_adder = std::move(adder); }
    void addFilePaths(const QStringList& paths);

private:
    Adder m_adder;
};
