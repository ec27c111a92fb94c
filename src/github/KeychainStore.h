#pragma once
// KeychainStore: where the account's record lives, one item per (service,
// account). The desktop implementation is the Secret Service (libsecret, in
// platform/); MemoryKeychainStore holds a token given for one run
// (--github-token-file) and serves the tests.
//
// Calls may come from any thread. load() never prompts: a locked item reads
// as nothing, so it is safe on the main thread.

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "core/Result.h"
#include "github/OAuthError.h"
#include "github/SecretText.h"

namespace velko {

class KeychainStore {
public:
    virtual ~KeychainStore() = default;
    // The stored bytes; nothing if absent, locked or on any error.
    virtual std::optional<SecretText> load(const std::string& service, const std::string& account) = 0;
    // Stores the bytes, replacing the item: two saves leave one item.
    // Fails with secretServiceUnavailable or keyringLocked.
    virtual Status<OAuthError> save(const SecretText& data, const std::string& service,
                                    const std::string& account) = 0;
    // Removes the item; a failure is ignored.
    virtual void remove(const std::string& service, const std::string& account) = 0;
    // Whether a save could succeed now (the service answers, the collection is
    // unlocked or could be unlocked): asked before the browser opens, so a
    // sign-in never ends with nowhere to keep its token. May block and prompt.
    virtual Status<OAuthError> checkAvailable() = 0;
};

// Items in memory, gone with the process.
class MemoryKeychainStore final : public KeychainStore {
public:
    std::optional<SecretText> load(const std::string& service, const std::string& account) override {
        std::lock_guard lock(m_mutex);
        auto it = m_items.find({service, account});
        if (it == m_items.end()) return std::nullopt;
        return it->second;
    }
    Status<OAuthError> save(const SecretText& data, const std::string& service, const std::string& account) override {
        std::lock_guard lock(m_mutex);
        if (failure) return fail(*failure);
        m_items[{service, account}] = data;
        return Ok{};
    }
    void remove(const std::string& service, const std::string& account) override {
        std::lock_guard lock(m_mutex);
        m_items.erase({service, account});
    }
    Status<OAuthError> checkAvailable() override {
        std::lock_guard lock(m_mutex);
        if (failure) return fail(*failure);
        return Ok{};
    }
    // Set by tests: every save and check fails so.
    std::optional<OAuthError> failure;

private:
    std::mutex m_mutex;
    std::map<std::pair<std::string, std::string>, SecretText> m_items;
};

}  // namespace velko
