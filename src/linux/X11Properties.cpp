#include "linux/X11Properties.h"

#include <X11/Xatom.h>
#include <X11/Xutil.h>

#include <deque>

namespace pavix::X11Properties {
namespace {

// Holds the data Xlib allocates for a property.
struct PropertyData {
    unsigned char* bytes = nullptr;
    Atom type = None;
    int format = 0;
    unsigned long count = 0;
    ~PropertyData() {
        if (bytes != nullptr) {
            XFree(bytes);
        }
    }
};

bool read(X11Display& display, Window window, Atom property, Atom type, PropertyData& data) {
    unsigned long after = 0;
    // A generous length limit (in 32-bit units): titles and client lists are far smaller.
    return XGetWindowProperty(display.get(), window, property, 0, 1 << 20, False, type, &data.type,
                              &data.format, &data.count, &after, &data.bytes) == Success &&
           data.type != None;
}

}  // namespace

std::vector<unsigned long> items(X11Display& display, Window window, const char* property) {
    PropertyData data;
    if (!read(display, window, display.atom(property), AnyPropertyType, data) ||
        data.format != 32) {
        return {};
    }
    // Format-32 data arrives as an array of `long`, whatever the size of long.
    auto* values = reinterpret_cast<unsigned long*>(data.bytes);
    return {values, values + data.count};
}

std::optional<unsigned long> cardinal(X11Display& display, Window window, const char* property) {
    auto values = items(display, window, property);
    if (values.empty()) {
        return std::nullopt;
    }
    return values.front();
}

std::optional<std::string> utf8(X11Display& display, Window window, const char* property) {
    PropertyData data;
    if (!read(display, window, display.atom(property), display.atom("UTF8_STRING"), data) ||
        data.format != 8) {
        return std::nullopt;
    }
    return std::string(reinterpret_cast<char*>(data.bytes), data.count);
}

std::optional<std::string> text(X11Display& display, Window window, Atom property) {
    XTextProperty value{};
    if (!XGetTextProperty(display.get(), window, &value, property) || value.value == nullptr) {
        return std::nullopt;
    }
    char** list = nullptr;
    int count = 0;
    std::optional<std::string> result;
    if (Xutf8TextPropertyToTextList(display.get(), &value, &list, &count) >= Success && count > 0 &&
        list != nullptr) {
        result = list[0];
    } else if (value.encoding == XA_STRING) {
        result = std::string(reinterpret_cast<char*>(value.value), value.nitems);
    }
    if (list != nullptr) {
        XFreeStringList(list);
    }
    XFree(value.value);
    return result;
}

std::pair<std::string, std::string> wmClass(X11Display& display, Window window) {
    XClassHint hint{};
    if (!XGetClassHint(display.get(), window, &hint)) {
        return {};
    }
    std::pair<std::string, std::string> result{hint.res_name ? hint.res_name : "",
                                               hint.res_class ? hint.res_class : ""};
    if (hint.res_name != nullptr) {
        XFree(hint.res_name);
    }
    if (hint.res_class != nullptr) {
        XFree(hint.res_class);
    }
    return result;
}

bool has(X11Display& display, Window window, const char* property) {
    PropertyData data;
    return read(display, window, display.atom(property), AnyPropertyType, data);
}

Window clientWindow(X11Display& display, Window window) {
    std::deque<std::pair<Window, int>> queue{{window, 0}};
    while (!queue.empty()) {
        auto [candidate, depth] = queue.front();
        queue.pop_front();
        if (has(display, candidate, "WM_STATE")) {
            return candidate;
        }
        // Window managers nest the client at most a few levels inside the frame.
        if (depth >= 3) {
            continue;
        }
        Window root = None, parent = None, *children = nullptr;
        unsigned int count = 0;
        if (XQueryTree(display.get(), candidate, &root, &parent, &children, &count)) {
            for (unsigned int i = 0; i < count; ++i) {
                queue.emplace_back(children[i], depth + 1);
            }
            if (children != nullptr) {
                XFree(children);
            }
        }
    }
    return None;
}

Window topLevel(X11Display& display, Window window) {
    Window current = window;
    for (int depth = 0; depth < 16; ++depth) {
        Window root = None, parent = None, *children = nullptr;
        unsigned int count = 0;
        if (!XQueryTree(display.get(), current, &root, &parent, &children, &count)) {
            return None;
        }
        if (children != nullptr) {
            XFree(children);
        }
        if (parent == root || parent == None) {
            return current;
        }
        current = parent;
    }
    return None;
}

}  // namespace pavix::X11Properties
