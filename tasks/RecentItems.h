#pragma once

#include <QList>
#include <QString>

// Results recently put on the clipboard (URLs and texts), newest first.
class RecentItems {
public:
    struct Item {
        QString item;
        QString title;
        int type = 0; // 1 URL, 2 text
        QString iconPath;
    };

    static constexpr qsizetype MaximumItems = 20;

    void addItem(const Item& item);
    const QList<Item>& items() const { return m_items; }
    void clear() { m_items.clear(); }

private:
    QList<Item> m_items;
};
