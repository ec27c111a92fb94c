#include "github/GitAuthManager.h"

namespace velko {

std::optional<OAuthTokenRecord> GitAuthManager::loadRecord() {
    auto bytes = m_keychain->load(m_service, m_account);
    if (!bytes) return std::nullopt;
    return OAuthTokenRecord::decode(bytes->str());
}

Status<OAuthError> GitAuthManager::save(const OAuthTokenRecord& record) {
    SecretText bytes(record.encode());
    std::lock_guard lock(m_writeLock);
    return m_keychain->save(bytes, m_service, m_account);
}

void GitAuthManager::remove() {
    std::lock_guard lock(m_writeLock);
    m_keychain->remove(m_service, m_account);
}

Result<bool, OAuthError> GitAuthManager::replaceIfRefreshTokenIs(const SecretText& spent,
                                                                  const OAuthTokenRecord& record) {
    SecretText bytes(record.encode());
    std::lock_guard lock(m_writeLock);
    auto stored = loadRecord();
    if (!stored || !(stored->refreshToken == spent)) return false;
    auto saved = m_keychain->save(bytes, m_service, m_account);
    if (!saved) return fail(saved.error());
    return true;
}

bool GitAuthManager::removeIfRefreshTokenIs(const SecretText& spent) {
    std::lock_guard lock(m_writeLock);
    auto stored = loadRecord();
    if (!stored || !(stored->refreshToken == spent)) return false;
    m_keychain->remove(m_service, m_account);
    return true;
}

std::optional<GitAuthToken> GitAuthManager::loadToken() {
    auto record = loadRecord();
    if (!record) return std::nullopt;
    return GitAuthToken{record->accessToken.str(), record->accountLogin, record->accountAvatarURL};
}

bool GitAuthManager::deleteToken(const std::string& accessToken) {
    std::lock_guard lock(m_writeLock);
    auto stored = loadRecord();
    // A token stored since the run began (a refresh, a new sign-in) is not the
    // one the server refused.
    if (stored && stored->accessToken.str() != accessToken) return false;
    if (stored) m_keychain->remove(m_service, m_account);
    return true;
}

}  // namespace velko
