// The token store over a real Secret Service, and the OAuth client over real
// HTTP against scripted faults of the fake GitHub.
#include <gtest/gtest.h>

#include "github/GitHubOAuthHTTPClient.h"
#include "integration/AccountTestSupport.h"
#include "platform/SecretServiceKeychainStore.h"
#include "platform/http/CurlHttpClient.h"

using namespace velko;
using namespace velko::test;

const char* const kService = "app.velko.test";

TEST(SecretServiceKeychain, KeepsOneItemReadsItBackRemovesItAndRefusesWhileLocked) {
    IsolatedHome home;
    VELKO_IN_PRIVATE_KEYRING();
    SecretServiceKeychainStore store;
    ASSERT_TRUE(store.checkAvailable());
    ASSERT_TRUE(store.save(SecretText("first"), kService, "default"));
    ASSERT_TRUE(store.save(SecretText("second"), kService, "default"));
    EXPECT_EQ(keyringItems(kService), 1u);
    EXPECT_EQ(SecretServiceKeychainStore().load(kService, "default").value_or(SecretText()).str(), "second");
    EXPECT_FALSE(store.load(kService, "other"));
    store.remove(kService, "default");
    EXPECT_FALSE(store.load(kService, "default"));
    EXPECT_EQ(keyringItems(kService), 0u);

    // A locked keyring whose unlock nobody can answer (no display for the prompt).
    ASSERT_TRUE(store.save(SecretText("kept"), kService, "default"));
    ASSERT_EQ(waitChild(spawnChild({"dbus-send", "--session", "--print-reply", "--dest=org.freedesktop.secrets",
                                    "/org/freedesktop/secrets", "org.freedesktop.Secret.Service.Lock",
                                    "array:objpath:/org/freedesktop/secrets/collection/login"})),
              0);
    EXPECT_FALSE(store.load(kService, "default")) << "a locked item reads as nothing";
    auto available = store.checkAvailable();
    ASSERT_FALSE(available);
    EXPECT_EQ(available.error(), OAuthError::keyringLocked);
    auto saved = store.save(SecretText("new"), kService, "default");
    ASSERT_FALSE(saved);
    EXPECT_EQ(saved.error(), OAuthError::keyringLocked);
}

TEST(SecretServiceKeychain, WithoutASessionBusEveryOperationFailsTyped) {
    ScopedEnv bus("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/velko-test-bus");
    SecretServiceKeychainStore store;
    auto available = store.checkAvailable();
    ASSERT_FALSE(available);
    EXPECT_EQ(available.error(), OAuthError::secretServiceUnavailable);
    auto saved = store.save(SecretText("t"), kService, "default");
    ASSERT_FALSE(saved);
    EXPECT_EQ(saved.error(), OAuthError::secretServiceUnavailable);
    EXPECT_FALSE(store.load(kService, "default"));
    store.remove(kService, "default");
}

TEST(HttpGitHubOAuthClientOverHttp, ScriptedFaultsOfTheServerBecomeTypedFailures) {
    enum class Call { Exchange, Refresh, User };
    struct Case {
        const char* fault;
        Call call;
        OAuthError error;
    };
    const Case cases[] = {
        {"bad_verification_code", Call::Exchange, OAuthError::decodingFailed},
        {"bad_refresh_token", Call::Refresh, OAuthError::decodingFailed},
        {"500", Call::Exchange, OAuthError::invalidResponse},
        {"malformed", Call::Exchange, OAuthError::decodingFailed},
        {"huge", Call::Exchange, OAuthError::invalidResponse},
        {"elsewhere", Call::Exchange, OAuthError::invalidResponse},
        {"slow", Call::Refresh, OAuthError::timedOut},
        {"401", Call::User, OAuthError::userFetchFailed},
    };
    TempDir dir;
    FakeGitHub server(dir, dir.path());
    ASSERT_GT(server.port, 0);
    auto http = std::make_shared<CurlHttpClient>();
    auto errorOf = [](const auto& result) { return result ? std::nullopt : std::optional(result.error()); };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fault);
        std::string base = server.url("/fault/") + c.fault;
        HttpGitHubOAuthClient client(
            {GitHubEndpoints(base, base + "/api"), "cid", std::nullopt, "http://127.0.0.1:1/cb", std::chrono::seconds(2)},
            http);
        EXPECT_EQ(c.call == Call::Exchange  ? errorOf(client.exchangeCode(SecretText("code"), SecretText("verifier")))
                  : c.call == Call::Refresh ? errorOf(client.refreshToken(SecretText("ghr_unknown")))
                                            : errorOf(client.fetchUser(SecretText("gho_unknown"))),
                  c.error);
    }

    // A certificate nobody vouches for is refused, not trusted.
    std::string cert = dir.file("cert.pem"), key = dir.file("key.pem");
    ASSERT_EQ(waitChild(spawnChild({"openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", key, "-out",
                                    cert, "-days", "1", "-subj", "/CN=127.0.0.1", "-addext",
                                    "subjectAltName=IP:127.0.0.1"})),
              0);
    FakeGitHub tls(dir, dir.path(), {cert, key});
    ASSERT_GT(tls.port, 0);
    std::string base = "https://127.0.0.1:" + std::to_string(tls.port);
    HttpGitHubOAuthClient client({GitHubEndpoints(base, base), "cid", std::nullopt, "http://127.0.0.1:1/cb"}, http);
    auto r = client.exchangeCode(SecretText("code"), SecretText("verifier"));
    ASSERT_FALSE(r);
    EXPECT_EQ(r.error(), OAuthError::tlsFailed);
}
