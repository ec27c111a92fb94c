// The adapters of the files subsystem: explorer monitoring and the file jobs on disk.
#include "files/ExplorerService.h"
#include "shell/ExplorerMonitoring.h"
#include "shell/ProjectFileAccessing.h"
#include "shell/ServiceAdapters.h"

namespace velko {

namespace {

class ExplorerServiceMonitoring final : public ExplorerMonitoring {
public:
    explicit ExplorerServiceMonitoring(std::shared_ptr<ExplorerService> service) : m_service(std::move(service)) {}
    bool activateMonitoring(const Uuid& projectId, const std::string& rootPath,
                            const std::vector<std::string>& excludedPaths, ChangeHandler onChange) override {
        return m_service->activateMonitoring(projectId, rootPath, excludedPaths, std::move(onChange));
    }
    void stopMonitoring() override { m_service->stopMonitoring(); }

private:
    std::shared_ptr<ExplorerService> m_service;
};

class DiskProjectFiles final : public ProjectFileAccessing {
public:
    explicit DiskProjectFiles(std::string homePath) : m_home(std::move(homePath)) {}
    std::optional<std::string> rootPath(const ProjectMetadata& project) const override {
        return projectRootPath(project, m_home);
    }
    std::vector<ExplorerDirectorySnapshot> listDirectories(const std::string& rootPath,
                                                           const std::vector<std::string>& relativePaths,
                                                           const std::vector<std::string>& excludedPaths) override {
        return listExplorerDirectories(rootPath, relativePaths, excludedPaths, m_home);
    }
    Result<FileReadResult, FileReadError> readFile(const std::string& rootPath, const std::string& path,
                                                   LargeFilePolicy policy) override {
        return readProjectFile(path, rootPath, policy, m_home);
    }
    Status<FileSaveError> saveFile(const std::string& rootPath, const std::string& path,
                                   const std::string& content) override {
        return saveProjectFile(path, rootPath, content, m_home);
    }
    Result<RenameOutcome, RenameError> renameItem(const std::string& rootPath, const std::string& fromPath,
                                                  const std::string& toPath, EntityTypeHint hint) override {
        return renameProjectItem(rootPath, fromPath, toPath, hint, m_home);
    }

private:
    const std::string m_home;
};

}  // namespace

std::shared_ptr<ExplorerMonitoring> makeExplorerMonitoring(std::shared_ptr<ExplorerService> service) {
    return std::make_shared<ExplorerServiceMonitoring>(std::move(service));
}
std::shared_ptr<ProjectFileAccessing> makeDiskProjectFiles(std::string homePath) {
    return std::make_shared<DiskProjectFiles>(std::move(homePath));
}

}  // namespace velko
