#include "linux/AtspiCalls.h"

#include <algorithm>

#include "linux/AtspiElementRules.h"

namespace pavix::AtspiCalls {

void start(int timeoutMs) {
    // libatspi is one per process, and so is the main context it is moved to below.
    static GMainContext* const context = [] {
        atspi_init();
        // libatspi dispatches what arrives on its connection from the default main context,
        // which a Qt application's main thread runs: its handlers would then run there,
        // beside this thread's calls. On a context of its own that no loop runs, they run only
        // inside the calls made on this thread, which read and dispatch the connection
        // themselves. libatspi keeps using the context without a reference: it is never freed.
        GMainContext* own = g_main_context_new();
        atspi_set_main_context(own);
        return own;
    }();
    (void)context;
    atspi_set_timeout(timeoutMs, timeoutMs);
}

bool succeeded(GError* error) {
    if (error) {
        g_error_free(error);
        return false;
    }
    return true;
}

// The text of a call that returns an owned string; empty when the call failed.
std::string take(gchar* text, GError* error) {
    if (error) {
        g_error_free(error);
    }
    std::string out = text ? text : "";
    g_free(text);
    return out;
}

std::string textOf(AtspiAccessible* accessible, int limit) {
    Ref<AtspiText> text(atspi_accessible_get_text_iface(accessible));
    if (!text) {
        return {};
    }
    GError* error = nullptr;
    int count = atspi_text_get_character_count(text.get(), &error);
    if (!succeeded(error)) {
        return {};
    }
    return take(atspi_text_get_text(text.get(), 0, std::min(count, limit), &error), error);
}

AtspiRole roleOf(AtspiAccessible* accessible) {
    GError* error = nullptr;
    auto role = atspi_accessible_get_role(accessible, &error);
    if (!succeeded(error)) {
        return ATSPI_ROLE_INVALID;
    }
    return role;
}

int childCount(AtspiAccessible* accessible) {
    GError* error = nullptr;
    int count = atspi_accessible_get_child_count(accessible, &error);
    if (!succeeded(error)) {
        return 0;
    }
    return std::max(count, 0);
}

Ref<AtspiAccessible> childAt(AtspiAccessible* accessible, int index) {
    GError* error = nullptr;
    Ref<AtspiAccessible> child(atspi_accessible_get_child_at_index(accessible, index, &error));
    if (!succeeded(error)) {
        return nullptr;
    }
    return child;
}

std::string nameOf(AtspiAccessible* accessible) {
    GError* error = nullptr;
    return take(atspi_accessible_get_name(accessible, &error), error);
}

std::shared_ptr<const void> handleOf(AtspiAccessible* accessible) {
    g_object_ref(accessible);
    return std::shared_ptr<const void>(accessible,
                                       [](const void* p) { g_object_unref(const_cast<void*>(p)); });
}

bool hasState(AtspiAccessible* accessible, AtspiStateType state) {
    Ref<AtspiStateSet> states(atspi_accessible_get_state_set(accessible));
    return states && atspi_state_set_contains(states.get(), state);
}

std::optional<CaptureRect> extentsOf(AtspiAccessible* accessible) {
    Ref<AtspiComponent> component(atspi_accessible_get_component_iface(accessible));
    if (!component) {
        return std::nullopt;
    }
    GError* error = nullptr;
    AtspiRect* rect = atspi_component_get_extents(component.get(), ATSPI_COORD_TYPE_SCREEN, &error);
    std::optional<CaptureRect> frame;
    if (succeeded(error) && rect) {
        frame = AtspiElementRules::frameOf(rect->x, rect->y, rect->width, rect->height);
    }
    g_free(rect);
    return frame;
}

}  // namespace pavix::AtspiCalls
