#pragma once
// A bridge wired to fakes of every service role, for tests of its handlers.
// Every call a fake receives is written to one journal, so a test sees the
// calls of all services in the order they were made. The main queue and the
// file queue are run by hand.

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/MainQueue.h"
#include "files/ExplorerService.h"
#include "shell/ExplorerMonitoring.h"
#include "shell/GitOperating.h"
#include "shell/ProjectFileAccessing.h"
#include "shell/ProjectStoring.h"
#include "shell/TerminalMessageHandling.h"
#include "shell/WebBridge.h"
#include "support/TestSupport.h"

namespace velko::test {

using Journal = std::vector<std::string>;

inline std::string joined(const std::vector<std::string>& parts, const char* separator = ",") {
    std::string out;
    for (size_t i = 0; i < parts.size(); ++i) out += (i ? separator : "") + parts[i];
    return out;
}
inline std::string joined(const std::vector<Uuid>& ids) {
    std::vector<std::string> texts;
    for (const auto& id : ids) texts.push_back(id.toString());
    return joined(texts);
}

// Ids that read well in journals.
inline const std::string kA = "AAAAAAAA-0000-4000-8000-000000000001";
inline const std::string kB = "BBBBBBBB-0000-4000-8000-000000000002";
inline const std::string kC = "CCCCCCCC-0000-4000-8000-000000000003";
inline const std::string kGone = "DDDDDDDD-0000-4000-8000-000000000004";  // its folder is missing
inline const std::string kUnknown = "EEEEEEEE-0000-4000-8000-000000000005";
inline const std::string kSession = "5E55E55E-0000-4000-8000-000000000006";
inline Uuid id(const std::string& text) { return *Uuid::parse(text); }

// Each fake writes every call it gets to the shared journal.
struct Recording {
    explicit Recording(Journal& journal) : journal(journal) {}
    void log(std::string line) { journal.push_back(std::move(line)); }
    Journal& journal;
};

// Projects A, B and "gone" are open; the folder "/r/c" would open as C.
struct FakeProjectStore final : ProjectStoring, Recording {
    explicit FakeProjectStore(Journal& journal) : Recording(journal) {
        for (auto [text, root] : {std::pair{kA, "/r/a"}, {kB, "/r/b"}, {kGone, "/r/gone"}})
            value.projects.push_back(project(text, root));
    }
    static ProjectMetadata project(const std::string& text, const std::string& root) {
        ProjectMetadata p;
        p.id = id(text);
        p.name = root.substr(root.rfind('/') + 1);
        p.rootPath = root;
        p.explorerExcludedPaths = {"dist"};
        return p;
    }
    const AppConfig& config() const override { return value; }
    std::optional<ProjectMetadata> project(const Uuid& id) const override {
        const ProjectMetadata* found = value.project(id);
        return found ? std::optional(*found) : std::nullopt;
    }
    std::vector<ProjectMetadata> openProjects(const std::vector<std::string>& folders) override {
        log("store.open " + joined(folders));
        std::vector<ProjectMetadata> opened;
        for (const auto& folder : folders)
            if (folder == "/r/c") opened.push_back(project(kC, folder));
        return opened;
    }
    std::vector<Uuid> closeProject(const Uuid& id) override {
        log("store.close " + id.toString());
        return id.toString() == kA ? std::vector<Uuid>{test::id(kSession)} : std::vector<Uuid>{};
    }
    void setActiveProject(const Uuid& id) override { log("store.activate " + id.toString()); }
    std::optional<Uuid> resumeWorkspace() override {
        log("store.resume");
        return resumeAnswer;
    }
    void reorderProjects(const std::vector<Uuid>& ids) override { log("store.reorder " + joined(ids)); }

    AppConfig value;
    std::optional<Uuid> resumeAnswer;
};

struct FakeGit final : GitOperating, Recording {
    using Recording::Recording;
    void refreshStatus(const std::optional<Uuid>& id) override { log("git.status " + (id ? id->toString() : "-")); }
    void fetchStatusDetail(const Uuid& id) override { log("git.detail " + id.toString()); }
    void fetchWorkingTree(const Uuid& id) override { log("git.tree " + id.toString()); }
    void fetchDiff(const Uuid& id, std::vector<GitDiffTarget> targets) override {
        std::vector<std::string> parts;
        for (const auto& t : targets) parts.push_back(t.path + ":" + toString(t.stage));
        log("git.diff " + id.toString() + " [" + joined(parts) + "]");
    }
    void fetchCommitDiff(const Uuid& id, std::string commit, std::optional<std::string> path) override {
        log("git.commitDiff " + id.toString() + " " + commit + (path ? " " + *path : ""));
    }
    void commit(const Uuid& id, std::string message) override { log("git.commit " + id.toString() + " " + message); }
    void push(const Uuid& id) override { log("git.push " + id.toString()); }
    void pull(const Uuid& id) override { log("git.pull " + id.toString()); }
    void fetch(const Uuid& id) override { log("git.fetch " + id.toString()); }
    void fetchRemoteTracking(const Uuid& id) override { log("git.tracking " + id.toString()); }
    void reachRefreshBarrier(const Uuid& id, std::string request) override {
        log("git.barrier " + id.toString() + " " + request);
    }
    void fetchCommitHistory(const Uuid& id, std::optional<std::string> cursor, int64_t pageSize,
                            std::optional<std::string> requestId) override {
        log("git.history " + id.toString() + " " + cursor.value_or("-") + " " + std::to_string(pageSize) + " " +
            requestId.value_or("-"));
    }
    void fetchCommitGraph(const Uuid& id, int64_t pageSize) override {
        log("git.graph " + id.toString() + " " + std::to_string(pageSize));
    }
    void fetchBranchMap(const Uuid& id, int64_t limit) override {
        log("git.branchMap " + id.toString() + " " + std::to_string(limit));
    }
};

struct FakeTerminal final : TerminalMessageHandling, Recording {
    using Recording::Recording;
    void handleMessage(std::string_view type, const Json*) override { log("terminal " + std::string(type)); }
    void terminateSessions(const std::vector<Uuid>& ids) override { log("terminal.terminate " + joined(ids)); }
};

struct FakeExplorer final : ExplorerMonitoring, Recording {
    using Recording::Recording;
    bool activateMonitoring(const Uuid& projectId, const std::string& rootPath,
                            const std::vector<std::string>& excluded, ChangeHandler) override {
        log("explorer.watch " + projectId.toString() + " " + rootPath + " " + joined(excluded));
        return true;
    }
    void stopMonitoring() override { log("explorer.stop"); }
};

// The project "gone" has no folder; every other project's folder is its stored
// path. A job answers what the test put in its field, else a failure.
struct FakeFiles final : ProjectFileAccessing, Recording {
    using Recording::Recording;
    std::optional<std::string> rootPath(const ProjectMetadata& project) const override {
        if (project.id.toString() == kGone) return std::nullopt;
        return project.rootPath;
    }
    std::vector<ExplorerDirectorySnapshot> listDirectories(const std::string& root,
                                                           const std::vector<std::string>& paths,
                                                           const std::vector<std::string>&) override {
        log("files.list " + root + " [" + joined(paths) + "]");
        std::vector<ExplorerDirectorySnapshot> snapshots;
        for (const auto& path : paths) snapshots.push_back({path, {{"f", path.empty() ? "f" : path + "/f"}}, ""});
        return snapshots;
    }
    Result<FileReadResult, FileReadError> readFile(const std::string& root, const std::string& path,
                                                   LargeFilePolicy policy) override {
        log("files.read " + root + " " + path + (policy == LargeFilePolicy::Allow ? " large" : ""));
        return read.value_or(fail(FileReadError{FileReadError::Kind::NotFound}));
    }
    Status<FileSaveError> saveFile(const std::string& root, const std::string& path,
                                   const std::string& content) override {
        log("files.save " + root + " " + path + " " + content);
        return save.value_or(Ok{});
    }
    Result<RenameOutcome, RenameError> renameItem(const std::string& root, const std::string& from,
                                                  const std::string& to, EntityTypeHint) override {
        log("files.rename " + root + " " + from + " " + to);
        return rename.value_or(fail(RenameError{"rename_not_found", "対象が見つかりません"}));
    }
    std::optional<Result<FileReadResult, FileReadError>> read;
    std::optional<Status<FileSaveError>> save;
    std::optional<Result<RenameOutcome, RenameError>> rename;
};

struct FakePicker final : FolderPicking, Recording {
    using Recording::Recording;
    void pickFolders(std::function<void(std::vector<std::string>)> completion) override {
        log("pick");
        completion(answer);
    }
    std::vector<std::string> answer;
};

struct BridgeHarness {
    BridgeHarness() {
        setMainQueue(main);
        bridge = std::make_shared<WebBridge>(WebBridge::Collaborators{explorer, files, fileQueue});
        bridge->setProjectStore(store);
        bridge->setGitService(git);
        bridge->setTerminalService(terminal);
        bridge->setFolderPicker(picker);
        bridge->setWebView(view);
        bridge->notifyWebViewDidFinishNavigation();
    }
    // Hands the message text to the bridge and runs both queues until nothing is left.
    void send(const std::string& message) {
        bridge->handleMessageText(message);
        run();
    }
    void run() {
        while (main->runUntilIdle() + fileQueue->runUntilIdle() > 0) {
        }
    }
    // Each event as its type and its payload's JSON, keys in the order sent.
    std::vector<std::string> events() const {
        std::vector<std::string> out;
        for (const auto& script : view->scripts) {
            auto envelope = OrderedJson::parse(envelopeFromEventScript(script).value_or("{}"));
            out.push_back(envelope.value("type", "") + " " + envelope["payload"].dump());
        }
        return out;
    }
    void clear() {
        journal.clear();
        view->scripts.clear();
    }

    Journal journal;
    std::shared_ptr<ManualQueue> main = std::make_shared<ManualQueue>();
    std::shared_ptr<ManualQueue> fileQueue = std::make_shared<ManualQueue>();
    std::shared_ptr<FakeProjectStore> store = std::make_shared<FakeProjectStore>(journal);
    std::shared_ptr<FakeGit> git = std::make_shared<FakeGit>(journal);
    std::shared_ptr<FakeTerminal> terminal = std::make_shared<FakeTerminal>(journal);
    std::shared_ptr<FakeExplorer> explorer = std::make_shared<FakeExplorer>(journal);
    std::shared_ptr<FakeFiles> files = std::make_shared<FakeFiles>(journal);
    std::shared_ptr<FakePicker> picker = std::make_shared<FakePicker>(journal);
    std::shared_ptr<ScriptRecorder> view = std::make_shared<ScriptRecorder>();
    std::shared_ptr<WebBridge> bridge;
};

// {"type": type, "payload": payload} as message text.
inline std::string message(const std::string& type, const Json& payload) {
    return Json{{"type", type}, {"payload", payload}}.dump();
}

}  // namespace velko::test
