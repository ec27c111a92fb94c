#pragma once
// What the account's integration tests stand on: a private Secret Service (a
// session bus of its own with gnome-keyring, unlocked by a test password) and
// one loopback server playing GitHub's web, API and git hosts.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/ChildProcesses.h"

namespace velko::test {

// The Secret Service items of `service`, as `secret-tool` counts them (one
// "label = …" line each on its standard output).
inline size_t keyringItems(const std::string& service) {
    std::string out = outputOf({"secret-tool", "search", "--all", "service", service});
    size_t count = 0;
    for (size_t at = 0; (at = out.find("\nlabel = ", at)) != std::string::npos; ++at) ++count;
    return count;
}

// The test's own default browser, in $XDG_DATA_HOME and $XDG_CONFIG_HOME: it
// fetches the URL and hands a redirect's Location to `gio open`, as a browser
// hands a link of another scheme to its handler. `handlers` adds desktop
// files for other schemes (scheme, command).
inline void installTestBrowser(const TempDir& dir, const std::vector<std::pair<std::string, std::string>>& handlers = {}) {
    std::string browser = dir.write("browser.py", R"PY(#!/usr/bin/env python3
import http.client, subprocess, sys, urllib.parse
url = urllib.parse.urlsplit(sys.argv[1])
connection = http.client.HTTPConnection(url.hostname, url.port, timeout=20)
connection.request("GET", url.path + ("?" + url.query if url.query else ""))
answer = connection.getresponse()
if 300 <= answer.status < 400 and answer.getheader("Location"):
    subprocess.run(["gio", "open", answer.getheader("Location")])
)PY");
    std::filesystem::permissions(browser, std::filesystem::perms::owner_all);
    std::string apps = std::string(std::getenv("XDG_DATA_HOME")) + "/applications";
    std::string config = std::getenv("XDG_CONFIG_HOME");
    std::filesystem::create_directories(apps);
    std::filesystem::create_directories(config);
    std::string defaults = "[Default Applications]\n";
    std::vector<std::pair<std::string, std::string>> all{{"http", browser}, {"https", browser}};
    all.insert(all.end(), handlers.begin(), handlers.end());
    for (const auto& [scheme, command] : all) {
        std::string name = "velko-test-" + scheme + ".desktop";
        std::ofstream(apps + "/" + name) << "[Desktop Entry]\nType=Application\nName=" + scheme + "\nExec=" + command +
                                                " %u\nMimeType=x-scheme-handler/" + scheme + ";\n";
        defaults += "x-scheme-handler/" + scheme + "=" + name + "\n";
    }
    std::ofstream(config + "/mimeapps.list") << defaults;
}

inline bool insidePrivateKeyring() { return std::getenv("VELKO_TEST_KEYRING") != nullptr; }

// Runs the current test once more in this program, inside `dbus-run-session`
// with `gnome-keyring-daemon --unlock` (a non-empty password: an empty one
// would keep the keyring unencrypted on disk). The test's HOME and XDG
// folders carry over. Returns the child's exit status; 77 when the tools are
// missing.
inline int rerunInPrivateKeyring() {
    for (const char* tool : {"/usr/bin/dbus-run-session", "/usr/bin/gnome-keyring-daemon"})
        if (access(tool, X_OK) != 0) return 77;
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string filter = std::string("--gtest_filter=") + info->test_suite_name() + "." + info->name();
    std::string runtime = std::string(std::getenv("HOME")) + "/run";
    std::filesystem::create_directories(runtime);
    std::filesystem::permissions(runtime, std::filesystem::perms::owner_all);
    ScopedEnv marker("VELKO_TEST_KEYRING", "1");
    ScopedEnv runtimeDir("XDG_RUNTIME_DIR", runtime);
    ScopedEnv password("VELKO_TEST_KEYRING_PASSWORD", "velko-test-keyring");
    std::string self = std::filesystem::read_symlink("/proc/self/exe");
    return waitChild(spawnChild({"dbus-run-session", "--", "sh", "-c",
                                 "printf %s \"$VELKO_TEST_KEYRING_PASSWORD\" | "
                                 "gnome-keyring-daemon --unlock --components=secrets >/dev/null && exec \"$0\" \"$1\"",
                                 self, filter}));
}

// A test body that needs the private keyring: the outer run starts the inner one.
#define VELKO_IN_PRIVATE_KEYRING()                                       \
    do {                                                                 \
        if (!::velko::test::insidePrivateKeyring()) {                    \
            int status = ::velko::test::rerunInPrivateKeyring();         \
            if (status == 77) GTEST_SKIP() << "no dbus-run-session or gnome-keyring"; \
            EXPECT_EQ(status, 0) << "the run inside the private keyring failed"; \
            return;                                                      \
        }                                                                \
    } while (0)

// The fake GitHub: `/login/oauth/authorize` records the PKCE challenge and
// redirects with a code and the state; `/login/oauth/access_token` checks the
// verifier, spends codes once and rotates refresh tokens; `/api/user` wants a
// Bearer token it issued; every other path is git's smart HTTP through
// `git http-backend`, for the token it issued. A path prefix "/fault/<name>"
// scripts a fault. With a certificate and key it speaks TLS.
inline const char* const kFakeGitHub = R"PY(
import base64, hashlib, http.server, json, os, ssl, subprocess, sys, time, urllib.parse
root, codes, refresh, serial = sys.argv[1], {}, set(), [0]
access = {os.environ.pop("VELKO_TEST_SERVER_TOKEN", "")} - {""}
def b64(data): return base64.urlsafe_b64encode(data).rstrip(b"=").decode()
def issue(kind):
    serial[0] += 1
    return "%s_velkoE2E%d%s" % (kind, serial[0], os.urandom(6).hex())

class GitHub(http.server.BaseHTTPRequestHandler):
    def log_message(self, *args): pass
    def reply(self, status, body=b"", headers=()):
        if isinstance(body, dict): body, headers = json.dumps(body), list(headers) + [("Content-Type", "application/json")]
        body = body.encode() if isinstance(body, str) else body
        self.send_response(status)
        for name, value in headers: self.send_header(name, value)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)
    def do_GET(self):
        url = urllib.parse.urlsplit(self.path)
        path, query = url.path, {k: v[0] for k, v in urllib.parse.parse_qs(url.query).items()}
        body = self.rfile.read(int(self.headers.get("Content-Length") or 0))
        fault = ""
        if path.startswith("/fault/"):
            _, _, fault, path = path.split("/", 3)
            path = "/" + path
        if fault == "slow": time.sleep(4)
        if fault == "500": return self.reply(500, "{}")
        if fault == "malformed": return self.reply(200, '{"access_token": ')
        if fault == "huge": return self.reply(200, "x" * (2 << 20))
        if fault == "elsewhere": return self.reply(302, "", [("Location", "http://127.0.0.2/")])
        if path == "/login/oauth/authorize":
            code = issue("code")
            codes[code] = (query["code_challenge"], query["redirect_uri"])
            return self.reply(302, "", [("Location", query["redirect_uri"] + "?" +
                                         urllib.parse.urlencode({"code": code, "state": query["state"]}))])
        if path == "/login/oauth/access_token":
            form = {k: v[0] for k, v in urllib.parse.parse_qs(body.decode()).items()}
            if form.get("grant_type") == "refresh_token":
                ok = fault != "bad_refresh_token" and form.get("refresh_token") in refresh
                refresh.discard(form.get("refresh_token"))
            else:
                challenge, redirect = codes.pop(form.get("code", ""), (None, None))
                verifier = form.get("code_verifier", "").encode()
                ok = fault != "bad_verification_code" and challenge == b64(hashlib.sha256(verifier).digest()) \
                    and redirect == form.get("redirect_uri")
            if not ok: return self.reply(200, {"error": "bad_verification_code"})
            token, renewal = issue("gho"), issue("ghr")
            access.add(token); refresh.add(renewal)
            return self.reply(200, {"access_token": token, "refresh_token": renewal, "token_type": "bearer",
                                    "scope": "repo,gist", "expires_in": 28800})
        auth = self.headers.get("Authorization", "")
        if path == "/api/user":
            if fault == "401" or auth[7:] not in access: return self.reply(401, {"message": "Bad credentials"})
            return self.reply(200, {"login": "octo", "avatar_url": "https://avatars.example/octo"})
        basic = base64.b64decode(auth[6:]).decode() if auth.startswith("Basic ") else ":"
        if basic.split(":", 1)[1] not in access:
            return self.reply(401, "", [("WWW-Authenticate", 'Basic realm="fake"')])
        env = {"PATH": os.environ["PATH"], "GIT_PROJECT_ROOT": root, "GIT_HTTP_EXPORT_ALL": "1", "PATH_INFO": path,
               "QUERY_STRING": url.query, "REQUEST_METHOD": self.command, "REMOTE_USER": "x-access-token",
               "CONTENT_TYPE": self.headers.get("Content-Type", ""), "CONTENT_LENGTH": str(len(body)),
               "GIT_CONFIG_NOSYSTEM": "1", "HOME": root}
        out = subprocess.run(["git", "http-backend"], input=body, env=env, capture_output=True).stdout
        head, _, payload = out.partition(b"\r\n\r\n")
        status, headers = 200, []
        for line in head.decode().split("\r\n"):
            name, _, value = line.partition(":")
            if name.lower() == "status": status = int(value.split()[0])
            elif name: headers.append((name, value.strip()))
        self.reply(status, payload, headers)
    do_POST = do_GET

server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), GitHub)
server.handle_error = lambda *args: None  # a client that hangs up early (the size cap) is no error
if len(sys.argv) > 3:
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(sys.argv[2], sys.argv[3])
    server.socket = context.wrap_socket(server.socket, server_side=True)
print(server.server_address[1], flush=True)
server.serve_forever()
)PY";

// `root` holds the bare repositories git may reach; `tls` a certificate and its
// key; a token in `presetToken` is taken as one it issued.
struct FakeGitHub : LoopbackServer {
    FakeGitHub(const TempDir& dir, const std::string& root, std::vector<std::string> tls = {},
               const std::string& presetToken = "")
        : LoopbackServer(dir.write("fake-github.py", kFakeGitHub), (tls.insert(tls.begin(), root), tls),
                         {{"VELKO_TEST_SERVER_TOKEN", presetToken}}) {}
};

}  // namespace velko::test
