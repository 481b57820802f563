// Reading context items in tests: the text, number or time an item holds, or
// a marker when the item is missing or has another type.
#pragma once

#include <ctime>
#include <string>

#include "zvlog/CContext.h"

namespace zvtest {

inline std::string itemText(const CContext& context, ContextItemID id) {
    const CContextItem* item = context.GetItem(id);
    if (!item) return "<missing>";
    if (item->GetType() != CDataItem::TypeString) return "<not a string>";
    const char* text = *item;
    return text ? text : "<null>";
}

inline unsigned long long itemNumber(const CContext& context, ContextItemID id) {
    const CContextItem* item = context.GetItem(id);
    return item ? static_cast<unsigned long long>(*item) : ~0ull;
}

inline timespec itemTime(const CContext& context, ContextItemID id) {
    const CContextItem* item = context.GetItem(id);
    return item && item->GetType() == CDataItem::TypeTimespec ? static_cast<timespec>(*item)
                                                              : timespec{-1, -1};
}

}  // namespace zvtest
