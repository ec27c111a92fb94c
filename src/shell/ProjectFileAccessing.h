#pragma once
// ProjectFileAccessing: the file jobs behind the page's file and explorer
// requests: finding a project's folder, listing directories, reading, saving
// and renaming below it. On disk these are the files subsystem's functions,
// bound to the user's home folder (see makeDiskProjectFiles).
//
// rootPath() looks at the disk too, so it runs with the jobs on the bridge's
// file queue where it may be slow (it is also asked on the main thread for the
// file requests); the jobs run there one after another. Implementations keep no state between calls. The
// bridge owns it.

#include <optional>
#include <string>
#include <vector>

#include "core/Result.h"
#include "files/ExplorerListing.h"
#include "files/ItemRename.h"
#include "files/ProjectFileAccess.h"
#include "workspace/Models.h"

namespace velko {

class ProjectFileAccessing {
public:
    virtual ~ProjectFileAccessing() = default;
    // The project's folder with the tilde expanded, if a directory is there.
    virtual std::optional<std::string> rootPath(const ProjectMetadata& project) const = 0;

    virtual std::vector<ExplorerDirectorySnapshot> listDirectories(const std::string& rootPath,
                                                                   const std::vector<std::string>& relativePaths,
                                                                   const std::vector<std::string>& excludedPaths) = 0;
    virtual Result<FileReadResult, FileReadError> readFile(const std::string& rootPath, const std::string& path,
                                                           LargeFilePolicy policy) = 0;
    virtual Status<FileSaveError> saveFile(const std::string& rootPath, const std::string& path,
                                           const std::string& content) = 0;
    virtual Result<RenameOutcome, RenameError> renameItem(const std::string& rootPath, const std::string& fromPath,
                                                          const std::string& toPath, EntityTypeHint hint) = 0;
};

}  // namespace velko
