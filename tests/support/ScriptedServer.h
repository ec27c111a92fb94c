#pragma once
// A loopback HTTP server answering from what the test scripted, and keeping
// every request it was sent.

#include <cstdio>
#include <string>
#include <vector>

#include "core/Paths.h"
#include "support/ChildProcesses.h"

namespace velko::test {

// An answer for a path is a file named by the path in hex, in the order
// scripted; each is used once unless it says "keep". Without one: 404.
inline const char* const kScriptedServer = R"PY(
import http.server, json, os, sys, time
folder = sys.argv[1]

class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    def log_message(self, *args):
        pass
    def do_GET(self):
        body = self.rfile.read(int(self.headers.get("Content-Length") or 0)).decode()
        with open(os.path.join(folder, "requests.jsonl"), "a") as log:
            log.write(json.dumps({"path": self.path, "headers": dict(self.headers), "body": body}) + "\n")
        prefix = self.path.encode().hex() + "."
        names = sorted(n for n in os.listdir(folder) if n.startswith(prefix))
        if not names:
            return self.reply(404, b"")
        with open(os.path.join(folder, names[0])) as f:
            answer = json.load(f)
        if not answer.get("keep"):
            os.remove(os.path.join(folder, names[0]))
        kind = answer.get("kind", "json")
        if kind == "silent":
            time.sleep(120)
        elif kind == "big":
            self.send_response(200)
            self.send_header("Content-Length", str(100 * 1024 * 1024))
            self.end_headers()
            for _ in range(1600):
                self.wfile.write(b"[" * 65536)
        elif kind == "raw":
            self.reply(answer.get("status", 200), answer["body"].encode())
        else:
            self.reply(answer.get("status", 200), json.dumps(answer["json"]).encode())
    do_POST = do_GET
    def reply(self, status, body):
        self.send_response(status)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)
)PY";

struct ScriptedServer {
    TempDir dir;
    LoopbackServer process{dir.write("server.py", std::string(kScriptedServer) + kServeHandler), {dir.path()}};
    int scripted = 0;

    std::string url(const std::string& path = "") const { return process.url(path); }
    // `answer`: {"json": …} or {"kind": "raw", "body": …}, with an optional
    // "status"; or {"kind": "silent" | "big"}.
    void script(const std::string& path, Json answer, bool keep = false) {
        std::string name;
        char hex[16];
        for (unsigned char c : path) {
            std::snprintf(hex, sizeof hex, "%02x", c);
            name += hex;
        }
        std::snprintf(hex, sizeof hex, ".%06d", ++scripted);
        if (keep) answer["keep"] = true;
        writeFileAtomically(dir.file(name + hex + ".json"), answer.dump());
    }
    std::vector<Json> requests() const {
        std::vector<Json> out;
        std::string text = readFile(dir.file("requests.jsonl"));
        for (size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
            out.push_back(Json::parse(text.substr(start, end - start)));
        return out;
    }
};

}  // namespace velko::test
