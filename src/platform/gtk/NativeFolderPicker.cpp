#include "platform/gtk/NativeFolderPicker.h"

#include <gtk/gtk.h>

namespace velko {

void NativeFolderPicker::pickFolders(std::function<void(std::vector<std::string>)> completion) {
    GtkFileChooserNative* chooser =
        gtk_file_chooser_native_new("Open", m_parent, GTK_FILE_CHOOSER_ACTION_SELECT_FOLDER, "Open", "Cancel");
    gtk_file_chooser_set_select_multiple(GTK_FILE_CHOOSER(chooser), TRUE);
    auto* pending = new std::function<void(std::vector<std::string>)>(std::move(completion));
    g_signal_connect(chooser, "response", G_CALLBACK(+[](GtkNativeDialog* dialog, int response, gpointer data) {
                         auto* done = static_cast<std::function<void(std::vector<std::string>)>*>(data);
                         std::vector<std::string> paths;
                         if (response == GTK_RESPONSE_ACCEPT) {
                             GListModel* files = gtk_file_chooser_get_files(GTK_FILE_CHOOSER(dialog));
                             for (guint i = 0; i < g_list_model_get_n_items(files); ++i) {
                                 GFile* file = G_FILE(g_list_model_get_item(files, i));
                                 if (char* path = g_file_get_path(file)) {
                                     paths.emplace_back(path);
                                     g_free(path);
                                 }
                                 g_object_unref(file);
                             }
                             g_object_unref(files);
                         }
                         (*done)(std::move(paths));
                         delete done;
                         g_object_unref(dialog);
                     }),
                     pending);
    gtk_native_dialog_set_modal(GTK_NATIVE_DIALOG(chooser), TRUE);
    gtk_native_dialog_show(GTK_NATIVE_DIALOG(chooser));
}

}  // namespace velko
