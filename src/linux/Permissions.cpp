#include "linux/Permissions.h"

#include <X11/Xlib.h>
#include <X11/extensions/Xcomposite.h>
#include <gio/gio.h>

namespace pavix::Permissions {

bool screenRecording() {
    Display* display = XOpenDisplay(nullptr);
    if (display == nullptr) {
        return false;
    }
    // Windows are recorded from their own pixmaps, which Composite 0.2 and later name.
    int event = 0, error = 0, major = 0, minor = 2;
    const bool composite = XCompositeQueryExtension(display, &event, &error) &&
                           XCompositeQueryVersion(display, &major, &minor) &&
                           (major > 0 || minor >= 2);
    XCloseDisplay(display);
    return composite;
}

bool display() {
    Display* display = XOpenDisplay(nullptr);
    if (display == nullptr) {
        return false;
    }
    XCloseDisplay(display);
    return true;
}

bool accessibility() {
    GError* error = nullptr;
    GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &error);
    if (bus == nullptr) {
        g_clear_error(&error);
        return false;
    }
    GVariant* reply = g_dbus_connection_call_sync(
        bus, "org.a11y.Bus", "/org/a11y/bus", "org.freedesktop.DBus.Properties", "Get",
        g_variant_new("(ss)", "org.a11y.Status", "IsEnabled"), G_VARIANT_TYPE("(v)"),
        G_DBUS_CALL_FLAGS_NO_AUTO_START, 1000, nullptr, &error);
    bool enabled = false;
    if (reply != nullptr) {
        GVariant* value = nullptr;
        g_variant_get(reply, "(v)", &value);
        enabled =
            g_variant_is_of_type(value, G_VARIANT_TYPE_BOOLEAN) && g_variant_get_boolean(value);
        g_variant_unref(value);
        g_variant_unref(reply);
    }
    g_clear_error(&error);
    g_object_unref(bus);
    return enabled;
}

}  // namespace pavix::Permissions
