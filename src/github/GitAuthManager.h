#pragma once
// GitAuthManager: the account's token record in the token store (service
// "app.velko.github.oauth", account "default"), and the git engine's road to
// it (GitAuthProviding).
//
// Reads go straight to the store, from any thread: the stored record is the
// only truth, nothing is cached. Every write (sign-in, refresh, logout, a
// token the server refused) goes through one lock, and the writes that
// follow a network call first check that what they replace is still stored,
// so a logout or a new sign-in during that call wins.

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "git/GitAuthProviding.h"
#include "github/KeychainStore.h"
#include "github/OAuthTokenRecord.h"

namespace velko {

class GitAuthManager final : public GitAuthProviding {
public:
    static constexpr const char* kService = "app.velko.github.oauth";
    static constexpr const char* kAccount = "default";

    explicit GitAuthManager(std::shared_ptr<KeychainStore> keychain, std::string service = kService,
                            std::string account = kAccount)
        : m_keychain(std::move(keychain)), m_service(std::move(service)), m_account(std::move(account)) {}

    // The stored record; nothing when absent or undecodable (which stays stored).
    std::optional<OAuthTokenRecord> loadRecord();
    Status<OAuthError> save(const OAuthTokenRecord& record);
    // Logout: the item goes, whatever it holds.
    void remove();
    Status<OAuthError> checkAvailable() { return m_keychain->checkAvailable(); }

    // After a refresh: stores `record` only if the stored refresh token is
    // still `spent`. False (and nothing written) when it changed or is gone.
    Result<bool, OAuthError> replaceIfRefreshTokenIs(const SecretText& spent, const OAuthTokenRecord& record);
    // After a failed refresh: removes the item only if it still holds `spent`.
    bool removeIfRefreshTokenIs(const SecretText& spent);

    // --- GitAuthProviding ---
    std::optional<GitAuthToken> loadToken() override;
    bool deleteToken(const std::string& accessToken) override;

private:
    std::shared_ptr<KeychainStore> m_keychain;
    std::string m_service;
    std::string m_account;
    std::mutex m_writeLock;
};

}  // namespace velko
