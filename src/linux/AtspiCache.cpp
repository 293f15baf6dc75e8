#include "linux/AtspiCache.h"

#include <chrono>
#include <cstring>

#include "linux/AtspiBatch.h"

namespace pavix::AtspiCache {
namespace {

// The one layout of an item read here: the element, its application and its parent as
// (bus name, path), its index and child count, its interfaces, name, role, description and
// the two words of its states.
constexpr const char* kItemsSignature = "a((so)(so)(so)iiassusau)";

// Reads the value of type `type` under `iter` and moves on; false when it has another type.
template <class T>
bool next(DBusMessageIter& iter, int type, T& out) {
    if (dbus_message_iter_get_arg_type(&iter) != type) {
        return false;
    }
    dbus_message_iter_get_basic(&iter, &out);
    dbus_message_iter_next(&iter);
    return true;
}

// The path of an object reference (so) and moves on.
bool reference(DBusMessageIter& iter, std::string& path) {
    if (dbus_message_iter_get_arg_type(&iter) != DBUS_TYPE_STRUCT) {
        return false;
    }
    DBusMessageIter pair;
    dbus_message_iter_recurse(&iter, &pair);
    const char* bus = nullptr;
    const char* object = nullptr;
    if (!next(pair, DBUS_TYPE_STRING, bus) || !next(pair, DBUS_TYPE_OBJECT_PATH, object)) {
        return false;
    }
    path = object;
    dbus_message_iter_next(&iter);
    return true;
}

bool item(DBusMessageIter& iter, AtspiCacheItem& out) {
    DBusMessageIter fields;
    dbus_message_iter_recurse(&iter, &fields);
    std::string application;
    dbus_int32_t index = -1, count = 0;
    if (!reference(fields, out.path) || !reference(fields, application) ||
        !reference(fields, out.parent) || !next(fields, DBUS_TYPE_INT32, index) ||
        !next(fields, DBUS_TYPE_INT32, count) ||
        dbus_message_iter_get_arg_type(&fields) != DBUS_TYPE_ARRAY) {
        return false;
    }
    out.index = index;
    out.childCount = count;
    DBusMessageIter interfaces;
    dbus_message_iter_recurse(&fields, &interfaces);
    const char* interface = nullptr;
    while (next(interfaces, DBUS_TYPE_STRING, interface)) {
        out.actionInterface |= std::strcmp(interface, "org.a11y.atspi.Action") == 0;
        out.textInterface |= std::strcmp(interface, "org.a11y.atspi.Text") == 0;
        out.valueInterface |= std::strcmp(interface, "org.a11y.atspi.Value") == 0;
    }
    dbus_message_iter_next(&fields);
    const char* name = nullptr;
    const char* description = nullptr;
    dbus_uint32_t role = 0;
    if (!next(fields, DBUS_TYPE_STRING, name) || !next(fields, DBUS_TYPE_UINT32, role) ||
        !next(fields, DBUS_TYPE_STRING, description) ||
        dbus_message_iter_get_arg_type(&fields) != DBUS_TYPE_ARRAY) {
        return false;
    }
    out.basics.name = name;
    out.basics.description = description;
    out.basics.role =
        role < ATSPI_ROLE_LAST_DEFINED ? static_cast<AtspiRole>(role) : ATSPI_ROLE_UNKNOWN;
    DBusMessageIter words;
    dbus_message_iter_recurse(&fields, &words);
    dbus_uint32_t low = 0, high = 0;
    next(words, DBUS_TYPE_UINT32, low);
    next(words, DBUS_TYPE_UINT32, high);
    out.basics.states = AtspiElementRules::StateMask{low} | AtspiElementRules::StateMask{high}
                                                                << 32;
    return true;
}

}  // namespace

std::vector<AtspiCacheItem> parse(DBusMessage* reply) {
    std::vector<AtspiCacheItem> items;
    DBusMessageIter args, list;
    if (!reply || std::strcmp(dbus_message_get_signature(reply), kItemsSignature) != 0 ||
        !dbus_message_iter_init(reply, &args)) {
        return items;
    }
    dbus_message_iter_recurse(&args, &list);
    while (dbus_message_iter_get_arg_type(&list) == DBUS_TYPE_STRUCT) {
        AtspiCacheItem one;
        if (!item(list, one)) {
            return {};  // a list that cannot be read whole is not read at all
        }
        items.push_back(std::move(one));
        dbus_message_iter_next(&list);
    }
    return items;
}

std::vector<AtspiCacheItem> items(DBusConnection* bus, const std::string& busName, int timeoutMs) {
    AtspiBatch batch(bus, busName, timeoutMs);
    auto call = batch.call("/org/a11y/atspi/cache", "org.a11y.atspi.Cache", "GetItems");
    batch.wait(AtspiBatch::Clock::now() + std::chrono::milliseconds(timeoutMs));
    return parse(batch.reply(call));
}

}  // namespace pavix::AtspiCache
