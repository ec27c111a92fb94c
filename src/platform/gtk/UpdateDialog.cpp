#include "platform/gtk/UpdateDialog.h"

#include "platform/BrowserLauncher.h"

namespace velko {

namespace {

constexpr const char* kOpenPageLabel = "ダウンロードページを開く";
constexpr const char* kLaterLabel = "あとで";
constexpr const char* kLinkKey = "velko-update-link";

class UpdateDialogPresenter final : public UpdatePresenting {
public:
    explicit UpdateDialogPresenter(std::function<GtkWindow*()> parent) : m_parent(std::move(parent)) {}
    void presentUpdate(const UpdateOffer& offer) override { show(updateAvailableMessage(offer), &offer.link); }
    void presentUpToDate() override { show(kUpToDateMessage, nullptr); }
    void presentCheckFailed() override { show(kUpdateCheckFailedMessage, nullptr); }

private:
    void show(const std::string& text, const std::string* link) {
        GtkWindow* parent = m_parent ? m_parent() : nullptr;
        // GtkMessageDialog: GTK 4.8 has no GtkAlertDialog yet.
        GtkWidget* dialog = gtk_message_dialog_new(parent, GtkDialogFlags(GTK_DIALOG_MODAL | GTK_DIALOG_DESTROY_WITH_PARENT),
                                                   GTK_MESSAGE_INFO, link ? GTK_BUTTONS_NONE : GTK_BUTTONS_OK, "%s",
                                                   text.c_str());
        gtk_window_set_title(GTK_WINDOW(dialog), "velko");
        if (link) {
            gtk_dialog_add_button(GTK_DIALOG(dialog), kLaterLabel, GTK_RESPONSE_CANCEL);
            gtk_dialog_add_button(GTK_DIALOG(dialog), kOpenPageLabel, GTK_RESPONSE_ACCEPT);
            gtk_dialog_set_default_response(GTK_DIALOG(dialog), GTK_RESPONSE_ACCEPT);
            g_object_set_data_full(G_OBJECT(dialog), kLinkKey, g_strdup(link->c_str()), g_free);
        }
        g_signal_connect(dialog, "response", G_CALLBACK(+[](GtkDialog* self, int response, gpointer) {
                             auto* url = static_cast<const char*>(g_object_get_data(G_OBJECT(self), kLinkKey));
                             // Only the page is opened: nothing is downloaded or run by velko.
                             if (response == GTK_RESPONSE_ACCEPT && url) openInDefaultBrowser(url);
                             gtk_window_destroy(GTK_WINDOW(self));
                         }),
                         nullptr);
        gtk_window_present(GTK_WINDOW(dialog));
    }

    std::function<GtkWindow*()> m_parent;
};

}  // namespace

std::shared_ptr<UpdatePresenting> makeUpdateDialogPresenter(std::function<GtkWindow*()> parent) {
    return std::make_shared<UpdateDialogPresenter>(std::move(parent));
}

}  // namespace velko
