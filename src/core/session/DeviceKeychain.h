#pragma once

#include <asio/awaitable.hpp>
#include <asio/thread_pool.hpp>
#include <optional>
#include <string>

#include "core/session/DeviceIdentity.h"
#include "platform/SecretStore.h"

namespace pavix {

// The device credential in the user's keyring: one item per server, its account the server
// address and its secret the credential's JSON. Keyring calls run on the worker pool.
class DeviceKeychain {
  public:
    DeviceKeychain(SecretStore& store, asio::thread_pool& pool) : store_(store), pool_(pool) {}

    // The item's service attribute: the application id followed by ".device".
    static std::string service();

    // None when there is no item; throws KeychainError when the keyring fails or the item
    // does not hold a credential.
    asio::awaitable<std::optional<DeviceIdentity>> load(std::string server);
    asio::awaitable<void> save(DeviceIdentity identity, std::string server);
    asio::awaitable<void> remove(std::string server);

  private:
    SecretStore& store_;
    asio::thread_pool& pool_;
};

}  // namespace pavix
