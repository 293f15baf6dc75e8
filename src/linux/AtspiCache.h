#pragma once

#include <dbus/dbus.h>

#include <string>
#include <vector>

#include "linux/AtspiElementRules.h"

namespace pavix {

// One accessible element as an application's cache lists it.
struct AtspiCacheItem {
    std::string path;
    std::string parent;  // the parent's path
    int index = -1;      // among its parent's children
    int childCount = 0;  // as the element counts them (the cache may hold fewer: below)
    bool actionInterface = false;
    bool textInterface = false;
    bool valueInterface = false;
    AtspiElementRules::Basics basics;
};

// An application's own list of its accessible elements (`org.a11y.atspi.Cache.GetItems`):
// the role, states, name and description of each, and where it hangs in the tree, in one
// round trip. GTK 3 lists every element except what a table or tree view makes up for its
// rows on demand (those elements it says it manages); Qt lists none.
namespace AtspiCache {

// The items of the application behind `busName`; empty when it lists none, the call fails or
// the answer has a shape this reader does not know.
std::vector<AtspiCacheItem> items(DBusConnection* bus, const std::string& busName, int timeoutMs);

// The parts of an answer, for reading one without a bus.
std::vector<AtspiCacheItem> parse(DBusMessage* reply);

}  // namespace AtspiCache
}  // namespace pavix
