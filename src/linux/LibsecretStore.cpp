#include "linux/LibsecretStore.h"

#include <libsecret/secret.h>

#include <functional>

#include "core/session/KeychainError.h"

namespace pavix {
namespace {

const SecretSchema* schema() {
    static const SecretSchema value = {"app.pavix.Pavix.DeviceCredential",
                                       SECRET_SCHEMA_NONE,
                                       {{"service", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                        {"account", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                        {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING}},
                                       0,
                                       nullptr,
                                       nullptr,
                                       nullptr,
                                       nullptr,
                                       nullptr,
                                       nullptr,
                                       nullptr};
    return &value;
}

// Owns a GError and turns it into the keyring status the rest of the system reports.
struct ErrorHolder {
    GError* error = nullptr;
    ~ErrorHolder() {
        if (error != nullptr) {
            g_error_free(error);
        }
    }
    void raise() const {
        if (error == nullptr) {
            return;
        }
        if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
            // Our own deadline cancelled the call: the keyring is waiting on a prompt.
            throw KeychainError(KeychainError::kInteractionNotAllowed);
        }
        if (error->domain == SECRET_ERROR) {
            throw KeychainError(KeychainError::kDecode);
        }
        // No session bus, or nobody owns the Secret Service name on it.
        throw KeychainError(KeychainError::kNotAvailable);
    }
};

// Runs one asynchronous libsecret call on a private main context of the calling thread and
// waits for it, cancelling it when the deadline passes. `start` begins the call with the
// cancellable and the callback; the returned result is handed to `finish`.
void runWithDeadline(std::chrono::milliseconds timeout,
                     const std::function<void(GCancellable*, GAsyncReadyCallback, gpointer)>& start,
                     const std::function<void(GAsyncResult*)>& finish) {
    GMainContext* context = g_main_context_new();
    g_main_context_push_thread_default(context);
    GCancellable* cancellable = g_cancellable_new();
    GAsyncResult* result = nullptr;

    GSource* deadline = g_timeout_source_new(static_cast<guint>(timeout.count()));
    g_source_set_callback(
        deadline,
        [](gpointer data) -> gboolean {
            g_cancellable_cancel(static_cast<GCancellable*>(data));
            return G_SOURCE_REMOVE;
        },
        cancellable, nullptr);
    g_source_attach(deadline, context);

    start(
        cancellable,
        [](GObject*, GAsyncResult* res, gpointer data) {
            *static_cast<GAsyncResult**>(data) = G_ASYNC_RESULT(g_object_ref(res));
        },
        &result);
    while (result == nullptr) {
        g_main_context_iteration(context, TRUE);
    }
    g_source_destroy(deadline);
    g_source_unref(deadline);
    try {
        finish(result);
    } catch (...) {
        g_object_unref(result);
        g_object_unref(cancellable);
        g_main_context_pop_thread_default(context);
        g_main_context_unref(context);
        throw;
    }
    g_object_unref(result);
    g_object_unref(cancellable);
    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);
}

}  // namespace

std::optional<std::string> LibsecretStore::load(const std::string& service,
                                                const std::string& account) {
    std::optional<std::string> found;
    runWithDeadline(
        timeout_,
        [&](GCancellable* cancellable, GAsyncReadyCallback callback, gpointer data) {
            secret_password_lookup(schema(), cancellable, callback, data, "service",
                                   service.c_str(), "account", account.c_str(), nullptr);
        },
        [&](GAsyncResult* result) {
            ErrorHolder error;
            gchar* secret = secret_password_lookup_finish(result, &error.error);
            error.raise();
            if (secret != nullptr) {
                found = std::string(secret);
                secret_password_free(secret);
            }
        });
    return found;
}

void LibsecretStore::save(const std::string& service, const std::string& account,
                          const std::string& label, const std::string& secret) {
    runWithDeadline(
        timeout_,
        [&](GCancellable* cancellable, GAsyncReadyCallback callback, gpointer data) {
            // Storing with the same attributes replaces the existing item's secret.
            secret_password_store(schema(), SECRET_COLLECTION_DEFAULT, label.c_str(),
                                  secret.c_str(), cancellable, callback, data, "service",
                                  service.c_str(), "account", account.c_str(), nullptr);
        },
        [&](GAsyncResult* result) {
            ErrorHolder error;
            secret_password_store_finish(result, &error.error);
            error.raise();
        });
}

void LibsecretStore::remove(const std::string& service, const std::string& account) {
    runWithDeadline(
        timeout_,
        [&](GCancellable* cancellable, GAsyncReadyCallback callback, gpointer data) {
            secret_password_clear(schema(), cancellable, callback, data, "service", service.c_str(),
                                  "account", account.c_str(), nullptr);
        },
        [&](GAsyncResult* result) {
            ErrorHolder error;
            // False without an error means there was nothing to remove, which is fine.
            secret_password_clear_finish(result, &error.error);
            error.raise();
        });
}

}  // namespace pavix
