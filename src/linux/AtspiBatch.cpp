#include "linux/AtspiBatch.h"

#include "linux/AtspiElementRules.h"

namespace pavix {
namespace {

// A property's value, inside its variant.
bool variantOf(DBusMessage* reply, DBusMessageIter& value) {
    DBusMessageIter args;
    if (!reply || !dbus_message_iter_init(reply, &args) ||
        dbus_message_iter_get_arg_type(&args) != DBUS_TYPE_VARIANT) {
        return false;
    }
    dbus_message_iter_recurse(&args, &value);
    return true;
}

}  // namespace

AtspiBatch::AtspiBatch(DBusConnection* bus, std::string busName, int timeoutMs)
    : bus_(bus), busName_(std::move(busName)), timeoutMs_(timeoutMs) {}

AtspiBatch::~AtspiBatch() {
    for (auto* pending : pending_) {
        if (pending) {
            dbus_pending_call_cancel(pending);
            dbus_pending_call_unref(pending);
        }
    }
    for (auto* reply : replies_) {
        if (reply) {
            dbus_message_unref(reply);
        }
    }
}

std::size_t AtspiBatch::send(DBusMessage* message) {
    DBusPendingCall* pending = nullptr;
    if (message && !dbus_connection_send_with_reply(bus_, message, &pending, timeoutMs_)) {
        pending = nullptr;
    }
    if (message) {
        dbus_message_unref(message);
    }
    pending_.push_back(pending);
    replies_.push_back(nullptr);
    return pending_.size() - 1;
}

std::size_t AtspiBatch::call(const std::string& path, const char* interface, const char* method) {
    return send(dbus_message_new_method_call(busName_.c_str(), path.c_str(), interface, method));
}

std::size_t AtspiBatch::extents(const std::string& path) {
    auto* message = dbus_message_new_method_call(busName_.c_str(), path.c_str(),
                                                 "org.a11y.atspi.Component", "GetExtents");
    dbus_uint32_t screen = ATSPI_COORD_TYPE_SCREEN;
    if (message) {
        dbus_message_append_args(message, DBUS_TYPE_UINT32, &screen, DBUS_TYPE_INVALID);
    }
    return send(message);
}

std::size_t AtspiBatch::text(const std::string& path, int end) {
    auto* message = dbus_message_new_method_call(busName_.c_str(), path.c_str(),
                                                 "org.a11y.atspi.Text", "GetText");
    dbus_int32_t from = 0, to = end;
    if (message) {
        dbus_message_append_args(message, DBUS_TYPE_INT32, &from, DBUS_TYPE_INT32, &to,
                                 DBUS_TYPE_INVALID);
    }
    return send(message);
}

std::size_t AtspiBatch::property(const std::string& path, const char* interface, const char* name) {
    auto* message = dbus_message_new_method_call(busName_.c_str(), path.c_str(),
                                                 "org.freedesktop.DBus.Properties", "Get");
    if (message) {
        dbus_message_append_args(message, DBUS_TYPE_STRING, &interface, DBUS_TYPE_STRING, &name,
                                 DBUS_TYPE_INVALID);
    }
    return send(message);
}

bool AtspiBatch::wait(Clock::time_point deadline) {
    bool all = true;
    for (std::size_t i = 0; i < pending_.size(); ++i) {
        auto*& pending = pending_[i];
        if (!pending) {
            continue;
        }
        // Every call was sent at once, so each has run out its own time-out by the time the
        // first has: a hung application costs one time-out, not one per call.
        if (Clock::now() < deadline) {
            dbus_pending_call_block(pending);
        }
        if (dbus_pending_call_get_completed(pending)) {
            replies_[i] = dbus_pending_call_steal_reply(pending);
            // A call that ran out its time-out is answered with libdbus's own error.
            all = all && !(replies_[i] && dbus_message_is_error(replies_[i], DBUS_ERROR_NO_REPLY));
        } else {
            dbus_pending_call_cancel(pending);
            all = false;
        }
        dbus_pending_call_unref(pending);
        pending = nullptr;
    }
    return all;
}

DBusMessage* AtspiBatch::reply(std::size_t index) const {
    auto* reply = index < replies_.size() ? replies_[index] : nullptr;
    return reply && dbus_message_get_type(reply) == DBUS_MESSAGE_TYPE_METHOD_RETURN ? reply
                                                                                    : nullptr;
}

std::optional<CaptureRect> AtspiBatch::rect(std::size_t index) const {
    auto* message = reply(index);
    DBusMessageIter args, box;
    if (!message || !dbus_message_iter_init(message, &args) ||
        dbus_message_iter_get_arg_type(&args) != DBUS_TYPE_STRUCT) {
        return std::nullopt;
    }
    dbus_message_iter_recurse(&args, &box);
    dbus_int32_t values[4];
    for (auto& value : values) {
        if (dbus_message_iter_get_arg_type(&box) != DBUS_TYPE_INT32) {
            return std::nullopt;
        }
        dbus_message_iter_get_basic(&box, &value);
        dbus_message_iter_next(&box);
    }
    return AtspiElementRules::frameOf(values[0], values[1], values[2], values[3]);
}

std::optional<std::string> AtspiBatch::string(std::size_t index) const {
    auto* message = reply(index);
    DBusMessageIter args;
    if (!message || !dbus_message_iter_init(message, &args) ||
        dbus_message_iter_get_arg_type(&args) != DBUS_TYPE_STRING) {
        return std::nullopt;
    }
    const char* text = nullptr;
    dbus_message_iter_get_basic(&args, &text);
    return std::string(text ? text : "");
}

std::optional<long long> AtspiBatch::integer(std::size_t index) const {
    DBusMessageIter value;
    if (!variantOf(reply(index), value)) {
        return std::nullopt;
    }
    switch (dbus_message_iter_get_arg_type(&value)) {
        case DBUS_TYPE_INT32: {
            dbus_int32_t v;
            dbus_message_iter_get_basic(&value, &v);
            return v;
        }
        case DBUS_TYPE_UINT32: {
            dbus_uint32_t v;
            dbus_message_iter_get_basic(&value, &v);
            return v;
        }
        default:
            return std::nullopt;
    }
}

std::optional<double> AtspiBatch::number(std::size_t index) const {
    DBusMessageIter value;
    if (!variantOf(reply(index), value) ||
        dbus_message_iter_get_arg_type(&value) != DBUS_TYPE_DOUBLE) {
        return std::nullopt;
    }
    double v;
    dbus_message_iter_get_basic(&value, &v);
    return v;
}

std::optional<std::vector<std::string>> AtspiBatch::paths(std::size_t index) const {
    auto* message = reply(index);
    DBusMessageIter args, list;
    if (!message || !dbus_message_iter_init(message, &args) ||
        dbus_message_iter_get_arg_type(&args) != DBUS_TYPE_ARRAY) {
        return std::nullopt;
    }
    std::vector<std::string> out;
    dbus_message_iter_recurse(&args, &list);
    while (dbus_message_iter_get_arg_type(&list) == DBUS_TYPE_STRUCT) {
        DBusMessageIter pair;
        dbus_message_iter_recurse(&list, &pair);
        dbus_message_iter_next(&pair);  // the bus name: the application's own
        if (dbus_message_iter_get_arg_type(&pair) != DBUS_TYPE_OBJECT_PATH) {
            return std::nullopt;
        }
        const char* path = nullptr;
        dbus_message_iter_get_basic(&pair, &path);
        out.emplace_back(path);
        dbus_message_iter_next(&list);
    }
    return out;
}

}  // namespace pavix
