#pragma once
// The services as the bridge sees them: each factory wraps one service (or,
// for the file jobs, the files subsystem's functions) in the small role the
// bridge calls. An adapter holds its service strongly; the composition root
// owns the adapters and gives the bridge weak or strong references to them as
// the bridge's ownership rules say.

#include <memory>
#include <string>

namespace velko {

class ConfigStore;
class TerminalService;
class GitService;
class ExplorerService;
class ProjectStoring;
class TerminalMessageHandling;
class GitOperating;
class ExplorerMonitoring;
class ProjectFileAccessing;
class EventDispatching;
class WebBridge;

std::shared_ptr<ProjectStoring> makeProjectStoring(std::shared_ptr<ConfigStore> store);
std::shared_ptr<TerminalMessageHandling> makeTerminalMessageHandling(std::shared_ptr<TerminalService> service);
std::shared_ptr<GitOperating> makeGitOperating(std::shared_ptr<GitService> service);
// The git service's events on their way to the bridge; the account status it
// sends (a token the server refused) takes the bridge's account road, which
// records it in the security log.
std::shared_ptr<EventDispatching> makeGitEventSink(std::weak_ptr<WebBridge> bridge);
std::shared_ptr<ExplorerMonitoring> makeExplorerMonitoring(std::shared_ptr<ExplorerService> service);
// Files on the local disk; a tilde in a project's path means `homePath`.
std::shared_ptr<ProjectFileAccessing> makeDiskProjectFiles(std::string homePath);

}  // namespace velko
