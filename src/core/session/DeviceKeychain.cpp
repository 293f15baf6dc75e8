#include "core/session/DeviceKeychain.h"

#include "core/runtime/Offload.h"
#include "core/session/KeychainError.h"

namespace pavix {

// The work handed to offload is always a named local: GCC 12 destroys the temporaries of a
// lambda with init-captures written inside a co_await expression twice.

std::string DeviceKeychain::service() {
    return "app.pavix.Pavix.device";
}

asio::awaitable<std::optional<DeviceIdentity>> DeviceKeychain::load(std::string server) {
    auto work = [store = &store_, server] { return store->load(service(), server); };
    auto secret = co_await offload(pool_, std::move(work));
    if (!secret) {
        co_return std::nullopt;
    }
    try {
        co_return DeviceIdentity::fromJson(*secret);
    } catch (const DecodeError&) {
        throw KeychainError(KeychainError::kDecode);
    }
}

asio::awaitable<void> DeviceKeychain::save(DeviceIdentity identity, std::string server) {
    auto work = [store = &store_, server, secret = identity.toJson()] {
        store->save(service(), server, "Pavix device credential for " + server, secret);
    };
    co_await offload(pool_, std::move(work));
}

asio::awaitable<void> DeviceKeychain::remove(std::string server) {
    auto work = [store = &store_, server] { store->remove(service(), server); };
    co_await offload(pool_, std::move(work));
}

}  // namespace pavix
