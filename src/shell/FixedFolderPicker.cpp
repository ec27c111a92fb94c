#include <unistd.h>

#include <climits>

#include "shell/WebViewHosting.h"

namespace velko {

namespace {

class FixedFolderPicker final : public FolderPicking {
public:
    explicit FixedFolderPicker(std::vector<std::string> folders) : m_folders(std::move(folders)) {}
    void pickFolders(std::function<void(std::vector<std::string>)> completion) override {
        std::vector<std::string> absolute;
        for (const auto& folder : m_folders) {
            if (!folder.empty() && folder[0] == '/') {
                absolute.push_back(folder);
            } else {
                char cwd[PATH_MAX];
                if (getcwd(cwd, sizeof cwd)) absolute.push_back(std::string(cwd) + "/" + folder);
            }
        }
        completion(std::move(absolute));
    }

private:
    std::vector<std::string> m_folders;
};

}  // namespace

std::shared_ptr<FolderPicking> makeFixedFolderPicker(std::vector<std::string> folders) {
    return std::make_shared<FixedFolderPicker>(std::move(folders));
}

}  // namespace velko
