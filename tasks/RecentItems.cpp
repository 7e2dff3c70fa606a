#include "tasks/RecentItems.h"

RecentItems& RecentItems::shared()
{
    static RecentItems items;
    return items;
}

void RecentItems::addItem(const Item& item)
{
    m_items.prepend(item);
    if (m_items.size() > MaximumItems) {
        m_items.resize(MaximumItems);
    }
}
