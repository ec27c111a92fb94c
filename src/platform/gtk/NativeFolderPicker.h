#pragma once
// NativeFolderPicker: the desktop's own folder chooser ("Open", several
// folders at once), modal over the window. A cancelled or failed dialog
// completes with an empty list.
//
// Main thread only. Owned by the window, which must outlive an open dialog.

#include "shell/WebViewHosting.h"

typedef struct _GtkWindow GtkWindow;

namespace velko {

class NativeFolderPicker final : public FolderPicking {
public:
    explicit NativeFolderPicker(GtkWindow* parent) : m_parent(parent) {}
    void pickFolders(std::function<void(std::vector<std::string>)> completion) override;

private:
    GtkWindow* m_parent;
};

}  // namespace velko
