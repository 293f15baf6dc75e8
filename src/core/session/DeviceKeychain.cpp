#include "core/session/DeviceKeychain.h"

#include "core/runtime/Offload.h"
#include "core/session/KeychainError.h"

namespace pavix {

std::string DeviceKeychain::service() {
    return "app.pavix.Pavix.device";
}

asio::awaitable<std::optional<DeviceIdentity>> DeviceKeychain::load(const std::string& server) {
    auto* store = &store_;
    auto secret =
        co_await offload(pool_, [store, server] { return store->load(service(), server); });
    if (!secret) {
        co_return std::nullopt;
    }
    try {
        co_return DeviceIdentity::fromJson(*secret);
    } catch (const DecodeError&) {
        throw KeychainError(KeychainError::kDecode);
    }
}

asio::awaitable<void> DeviceKeychain::save(const DeviceIdentity& identity,
                                           const std::string& server) {
    auto* store = &store_;
    co_await offload(pool_, [store, server, secret = identity.toJson()] {
        store->save(service(), server, "Pavix device credential for " + server, secret);
    });
}

asio::awaitable<void> DeviceKeychain::remove(const std::string& server) {
    auto* store = &store_;
    co_await offload(pool_, [store, server] { store->remove(service(), server); });
}

}  // namespace pavix
