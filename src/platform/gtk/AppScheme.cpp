#include "platform/gtk/AppScheme.h"

#include <webkit/webkit.h>

#include <string>

#include "shell/AppBundleSchemeHandler.h"

namespace velko {

namespace {

// The window that lives now answers the scheme.
std::shared_ptr<AppBundleSchemeHandler>& currentSchemeHandler() {
    static std::shared_ptr<AppBundleSchemeHandler> handler;
    return handler;
}

void answerSchemeRequest(WebKitURISchemeRequest* request, gpointer) {
    const char* uri = webkit_uri_scheme_request_get_uri(request);
    auto handler = currentSchemeHandler();
    SchemeResponse response;
    if (!uri || !*uri) {
        GError* error = g_error_new_literal(G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT, "bad URL");
        webkit_uri_scheme_request_finish_error(request, error);
        g_error_free(error);
        return;
    }
    if (handler) {
        response = handler->respond(uri);
    } else {
        response.body = "Not found";
        response.mimeType = "text/plain";
        response.textEncoding = "utf-8";
    }
    if (response.kind == SchemeResponse::Kind::ReadFailed || response.kind == SchemeResponse::Kind::BadRequest) {
        GError* error = g_error_new(G_IO_ERROR, G_IO_ERROR_FAILED, "%s", response.error.c_str());
        webkit_uri_scheme_request_finish_error(request, error);
        g_error_free(error);
        return;
    }
    GBytes* bytes = g_bytes_new(response.body.data(), response.body.size());
    GInputStream* stream = g_memory_input_stream_new_from_bytes(bytes);
    WebKitURISchemeResponse* answer =
        webkit_uri_scheme_response_new(stream, static_cast<gint64>(response.body.size()));
    std::string contentType = response.contentType();
    webkit_uri_scheme_response_set_content_type(answer, contentType.c_str());
    if (response.kind == SchemeResponse::Kind::NotFound) {
        webkit_uri_scheme_response_set_status(answer, 404, "Not Found");
        SoupMessageHeaders* headers = soup_message_headers_new(SOUP_MESSAGE_HEADERS_RESPONSE);
        soup_message_headers_append(headers, "Content-Type", contentType.c_str());
        soup_message_headers_append(headers, "Content-Length", std::to_string(response.body.size()).c_str());
        webkit_uri_scheme_response_set_http_headers(answer, headers);  // takes ownership
    } else {
        webkit_uri_scheme_response_set_status(answer, 200, nullptr);
    }
    webkit_uri_scheme_request_finish_with_response(request, answer);
    g_object_unref(answer);
    g_object_unref(stream);
    g_bytes_unref(bytes);
}

}  // namespace

void registerAppScheme() {
    static bool registered = false;
    if (registered) return;
    registered = true;
    WebKitWebContext* context = webkit_web_context_get_default();
    webkit_web_context_register_uri_scheme(context, "app", answerSchemeRequest, nullptr, nullptr);
    WebKitSecurityManager* security = webkit_web_context_get_security_manager(context);
    // Module scripts and fetch() need a secure, CORS-enabled origin.
    webkit_security_manager_register_uri_scheme_as_secure(security, "app");
    webkit_security_manager_register_uri_scheme_as_cors_enabled(security, "app");
}

void setAppSchemeHandler(std::shared_ptr<AppBundleSchemeHandler> handler) { currentSchemeHandler() = std::move(handler); }

}  // namespace velko
