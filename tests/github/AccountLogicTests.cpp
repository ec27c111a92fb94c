// The account's pure logic: where the client settings come from, PKCE, the
// authorize URL, the stored record and its dates, and what the HTTP client
// makes of GitHub's answers.
#include <gtest/gtest.h>

#include <set>

#include "github/AccountTestSupport.h"
#include "github/GitHubOAuthEnvironment.h"
#include "github/Pkce.h"

using namespace velko;
using namespace velko::test;

TEST(GitHubOAuthEnvironment, TheFirstKeyPresentDecidesAndScopesSplitAtBlanksAndCommas) {
    struct Case {
        const char* name;
        std::map<std::string, std::string> env;
        const char* file;  // Config.json text
        std::optional<std::string> clientID;
        const char* secret;  // nullptr: absent
        const char* redirect;
        const char* scopes;
    };
    const Case cases[] = {
        {"nothing configured: no sign-in", {}, "{}", std::nullopt, nullptr, "", ""},
        {"file only, defaults", {}, R"({"GitHubOAuthClientIdProd":"file-id"})", "file-id", nullptr,
         "velko://oauth/callback", "repo offline_access"},
        {"environment over file",
         {{"VELKO_GITHUB_OAUTH_CLIENT_ID_PROD", "env-id"}, {"VELKO_GITHUB_OAUTH_DEFAULT_SCOPES", "repo, gist"}},
         R"({"GitHubOAuthClientIdDev":"file-id","GitHubOAuthDefaultScopes":["read:org"]})", "env-id", nullptr,
         "velko://oauth/callback", "repo gist offline_access"},
        {"an empty first key wins over a later one",
         {{"VELKO_GITHUB_OAUTH_CLIENT_ID_DEV", ""}, {"VELKO_GITHUB_OAUTH_CLIENT_ID_PROD", "prod"}}, "{}",
         std::nullopt, nullptr, "", ""},
        {"an empty secret is kept as empty, the file's list joins",
         {{"VELKO_GITHUB_OAUTH_CLIENT_SECRET_DEV", ""}},
         R"({"GitHubOAuthClientIdDev":"id","GitHubOAuthClientSecretProd":"s","GitHubOAuthRedirectURI":"http://127.0.0.1:9/cb","GitHubOAuthDefaultScopes":["repo","offline_access"]})",
         "id", "", "http://127.0.0.1:9/cb", "repo offline_access"},
        {"a file whose root is a list counts as empty", {{"VELKO_GITHUB_OAUTH_CLIENT_ID_DEV", "id"}}, "[1]", "id",
         nullptr, "velko://oauth/callback", "repo offline_access"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto file = parseJson(c.file);
        auto env = GitHubOAuthEnvironment::resolve(
            [&](const char* name) -> std::optional<std::string> {
                auto it = c.env.find(name);
                return it == c.env.end() ? std::nullopt : std::optional(it->second);
            },
            file ? &*file : nullptr);
        ASSERT_EQ(env.has_value(), c.clientID.has_value());
        if (!env) continue;
        EXPECT_EQ(env->clientID, *c.clientID);
        EXPECT_EQ(env->clientSecret ? env->clientSecret->str() : "(absent)", c.secret ? c.secret : "(absent)");
        EXPECT_EQ(env->redirectURI, c.redirect);
        std::string scopes;
        for (const auto& s : env->scopes) scopes += (scopes.empty() ? "" : " ") + s;
        EXPECT_EQ(scopes, c.scopes);
    }
    EXPECT_EQ(normalizeScopes({"repo", "repo", "", "read:org"}),
              (std::vector<std::string>{"repo", "read:org", "offline_access"}));
}

TEST(Pkce, MatchesTheRfcAndEveryVerifierIs43UrlSafeCharacters) {
    EXPECT_EQ(codeChallenge("dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk"), "E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM");
    auto urlSafe43 = [](const std::string& text) {
        return text.size() == 43 && text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                                           "0123456789-_") == std::string::npos;
    };
    std::set<std::string> seen;
    for (int i = 0; i < 10000; ++i) {
        auto verifier = makeCodeVerifier();
        ASSERT_TRUE(verifier);
        ASSERT_TRUE(urlSafe43(verifier->str())) << verifier->str();
        ASSERT_TRUE(urlSafe43(codeChallenge(verifier->str())));
        seen.insert(verifier->str());
    }
    EXPECT_EQ(seen.size(), 10000u);
    EXPECT_TRUE(constantTimeEquals("abc", "abc"));
    EXPECT_FALSE(constantTimeEquals("abc", "abd"));
    EXPECT_FALSE(constantTimeEquals("abc", "abcd"));
}

TEST(GitHubOAuthCoordinator, TheAuthorizeUrlHasItsQueryInOrderAndEncoded) {
    GitHubOAuthCoordinator::Configuration config{"Iv1.abc", "http://127.0.0.1:8123/cb", {"repo", "read:org"},
                                                 GitHubEndpoints("https://ghe.example.com", "https://api.example.com")};
    EXPECT_EQ(GitHubOAuthCoordinator::authorizeURL(config, "S-1", "C_2"),
              "https://ghe.example.com/login/oauth/authorize?client_id=Iv1.abc"
              "&redirect_uri=http%3A%2F%2F127.0.0.1%3A8123%2Fcb&scope=repo%20read%3Aorg%20offline_access"
              "&state=S-1&code_challenge=C_2&code_challenge_method=S256");
}

TEST(OAuthTokenRecord, RoundTripsAndTellsTokensThatNeverExpire) {
    auto at = [](const char* text) { return *parseOAuthTime(text); };
    OAuthTime now = at("2026-03-01T10:00:00.000Z");
    OAuthTokenRecord record = OAuthTokenRecord::from(tokens("gho_x", "", 0, "repo gist  admin:org"), now);
    record.accountLogin = "octo";
    EXPECT_EQ(record.expiresAt, kDistantFuture);
    EXPECT_EQ(record.scope, (std::vector<std::string>{"admin:org", "gist", "repo"}));
    auto decoded = OAuthTokenRecord::decode(record.encode());
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->encode(), record.encode());
    EXPECT_EQ(record.encode(), R"({"accessToken":"gho_x","refreshToken":"","expiresAt":"4001-01-01T00:00:00.000Z",)"
                               R"("scope":["admin:org","gist","repo"],"tokenType":"bearer","accountLogin":"octo"})");
    EXPECT_FALSE(OAuthTokenRecord::decode(R"({"accessToken":"a","expiresAt":"2030-01-01T00:00:00Z","scope":[],"tokenType":"b"})"));
    EXPECT_FALSE(OAuthTokenRecord::decode("not json"));

    struct Case {
        const char* date;
        bool nonExpiring;
    };
    for (const Case& c : {Case{"2099-12-31T23:59:59.999Z", false}, Case{"2100-01-01T00:00:00Z", true},
                          Case{"4001-01-01T00:00:00Z", true}, Case{"2026-03-01T10:05:00+09:00", false}}) {
        SCOPED_TRACE(c.date);
        EXPECT_EQ(isNonExpiring(at(c.date)), c.nonExpiring);
    }
    EXPECT_EQ(formatOAuthTime(expiryDate(now, 28800)), "2026-03-01T18:00:00.000Z");
}

TEST(HttpGitHubOAuthClient, ReadsGitHubsAnswersAsTheyAreMeant) {
    struct Case {
        const char* name;
        bool refresh;
        const char* body;  // of a 200 answer
        std::optional<OAuthError> error;
        const char* scope = "";
        int64_t expiresIn = 0;
        const char* refreshToken = "";
    };
    const Case cases[] = {
        {"commas in the scope become blanks", false,
         R"({"access_token":"a","refresh_token":"r","scope":"repo,gist","expires_in":28800})", {}, "repo gist", 28800,
         "r"},
        {"no expiry: zero; no refresh token on exchange: empty", false, R"({"access_token":"a","scope":""})", {}},
        {"no access token", false, R"({"scope":"repo"})", OAuthError::missingAccessToken},
        {"a refresh without a new refresh token", true, R"({"access_token":"a","scope":"repo"})",
         OAuthError::missingRefreshToken},
        {"a number where text belongs", false, R"({"access_token":5,"scope":"repo"})", OAuthError::decodingFailed},
    };
    auto http = std::make_shared<FakeHttp>();
    HttpGitHubOAuthClient client(
        {GitHubEndpoints("https://gh.test", "https://api.gh.test"), "cid", SecretText("s&=+ x"), "velko://oauth/callback"},
        http);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        http->answer = [&](const HttpRequest&) -> HttpResult { return HttpResponse{200, {}, c.body}; };
        auto result = c.refresh ? client.refreshToken(SecretText("ghr_1"))
                                : client.exchangeCode(SecretText("c o"), SecretText("v"));
        ASSERT_EQ(result.ok(), !c.error);
        if (c.error) {
            EXPECT_EQ(result.error(), *c.error);
            continue;
        }
        EXPECT_EQ(result->scope, c.scope);
        EXPECT_EQ(result->expiresIn, c.expiresIn);
        EXPECT_EQ(result->tokenType, "bearer");
        EXPECT_EQ(result->refreshToken.str(), c.refreshToken);
    }
    const HttpRequest& exchange = http->requests.front();
    EXPECT_EQ(exchange.url, "https://gh.test/login/oauth/access_token");
    EXPECT_EQ(exchange.body, "client_id=cid&redirect_uri=velko://oauth/callback&code=c%20o&grant_type="
                             "authorization_code&code_verifier=v&client_secret=s%26%3D+%20x");
    EXPECT_EQ(exchange.maxResponseBytes, 1024u * 1024u);
    EXPECT_EQ(exchange.totalTimeout, std::chrono::seconds(60));
    // (Reading the user with the token is the end-to-end sign-in's.)
}
