#include "tasks/RecentItems.h"

void RecentItems::addItem(const Item& item)
{
    m_items.prepend(item);
    if (m_items.size() > MaximumItems) {
        m_items.resize(MaximumItems);
    }
}
