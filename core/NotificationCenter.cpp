#include "core/NotificationCenter.h"

#include <vector>

int NotificationCenter::addObserver(const QString& name, const QObject* sender, Observer observer)
{
    const int token = m_nextToken++;
    m_observers.emplace(token, Entry{name, sender, sender != nullptr, std::move(observer)});
    return token;
}

void NotificationCenter::removeObserver(int token)
{
    m_observers.erase(token);
}

void NotificationCenter::post(const QString& name, QObject* object, const QVariantMap& userInfo)
{
    const Notification notification{name, object, userInfo};
    // Observers may add or remove observers while being told; walk a snapshot of tokens
    // and skip the ones removed meanwhile.
    std::vector<int> tokens;
    tokens.reserve(m_observers.size());
    for (const auto& [token, entry] : m_observers) {
        tokens.push_back(token);
    }
    for (int token : tokens) {
        auto it = m_observers.find(token);
        if (it == m_observers.end()) {
            continue;
        }
        const Entry& entry = it->second;
        if (!entry.name.isEmpty() && entry.name != name) {
            continue;
        }
        if (entry.filtersSender && (entry.sender.isNull() || entry.sender.data() != object)) {
            continue;
        }
        const Observer observer = entry.observer; // the entry may go while it runs
        observer(notification);
    }
}
