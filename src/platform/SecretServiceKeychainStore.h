#pragma once
// The token store over the Secret Service (GNOME Keyring, KWallet) through
// libsecret: one item of the schema "app.velko.github.oauth" with the
// attributes "service" and "account", in the default collection. Only the
// secret_service_* calls: libsecret's simple password API may fall back to a
// file of its own, and a token never lands in a file.
//
// Any thread; every call is a blocking D-Bus exchange. load() never unlocks
// (a locked item reads as nothing). checkAvailable() may show the desktop's
// unlock prompt, for at most kUnlockLimit.

#include <chrono>

#include "github/KeychainStore.h"

namespace velko {

class SecretServiceKeychainStore final : public KeychainStore {
public:
    static constexpr std::chrono::seconds kUnlockLimit{120};

    std::optional<SecretText> load(const std::string& service, const std::string& account) override;
    Status<OAuthError> save(const SecretText& data, const std::string& service, const std::string& account) override;
    void remove(const std::string& service, const std::string& account) override;
    Status<OAuthError> checkAvailable() override;
};

}  // namespace velko
