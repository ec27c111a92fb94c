#include "platform/SecretServiceKeychainStore.h"

#include <libsecret/secret.h>

#include <memory>
#include <mutex>

#include "core/Log.h"

namespace velko {

namespace {

const Logger kLog("app.velko.github", "keychain");

const SecretSchema* schema() {
    static const SecretSchema kSchema = {
        "app.velko.github.oauth",
        SECRET_SCHEMA_DONT_MATCH_NAME,
        {{"service", SECRET_SCHEMA_ATTRIBUTE_STRING}, {"account", SECRET_SCHEMA_ATTRIBUTE_STRING}, {nullptr, {}}},
        0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
    return &kSchema;
}

struct GObjectUnref {
    void operator()(void* object) const { g_object_unref(object); }
};
template <typename T>
using GRef = std::unique_ptr<T, GObjectUnref>;

struct Attributes {
    GHashTable* table = g_hash_table_new(g_str_hash, g_str_equal);
    Attributes(const std::string& service, const std::string& account) {
        g_hash_table_insert(table, const_cast<char*>("service"), const_cast<char*>(service.c_str()));
        g_hash_table_insert(table, const_cast<char*>("account"), const_cast<char*>(account.c_str()));
    }
    ~Attributes() { g_hash_table_unref(table); }
};

// The error's message for the log; never a secret (libsecret's messages name
// paths and D-Bus errors only). The status is read often: a failure that
// repeats the last one is not written again.
void logError(const char* what, GError* error) {
    static std::mutex mutex;
    static std::string last;
    std::string line = std::string(what) + ": " + (error ? error->message : "unknown error");
    g_clear_error(&error);
    std::lock_guard lock(mutex);
    if (line == last) return;
    last = line;
    kLog.error(line);
}

OAuthError classify(GError* error) {
    if (error && error->domain == SECRET_ERROR && error->code == SECRET_ERROR_IS_LOCKED)
        return OAuthError::keyringLocked;
    return OAuthError::secretServiceUnavailable;
}

Result<GRef<SecretService>, OAuthError> connect() {
    GError* error = nullptr;
    SecretService* service = secret_service_get_sync(SECRET_SERVICE_OPEN_SESSION, nullptr, &error);
    if (!service) {
        logError("no Secret Service", error);
        return fail(OAuthError::secretServiceUnavailable);
    }
    return GRef<SecretService>(service);
}

// The matching items, unlocked ones with their secrets loaded.
GList* search(SecretService* service, const std::string& name, const std::string& account, GError** error) {
    Attributes attributes(name, account);
    return secret_service_search_sync(service, schema(), attributes.table,
                                      static_cast<SecretSearchFlags>(SECRET_SEARCH_ALL | SECRET_SEARCH_LOAD_SECRETS),
                                      nullptr, error);
}

// Unlocks `object` through the desktop's prompt, giving up after `limit`.
bool unlockWithin(SecretService* service, GDBusProxy* object, std::chrono::seconds limit) {
    GMainContext* context = g_main_context_new();
    g_main_context_push_thread_default(context);
    GCancellable* cancellable = g_cancellable_new();
    struct State {
        bool done = false;
        bool unlocked = false;
    } state;
    GList* objects = g_list_append(nullptr, object);
    secret_service_unlock(
        service, objects, cancellable,
        +[](GObject* source, GAsyncResult* result, gpointer data) {
            auto* s = static_cast<State*>(data);
            GList* unlocked = nullptr;
            GError* error = nullptr;
            s->unlocked = secret_service_unlock_finish(SECRET_SERVICE(source), result, &unlocked, &error) > 0;
            g_list_free_full(unlocked, g_object_unref);
            if (error) logError("the keyring stayed locked", error);
            s->done = true;
        },
        &state);
    GSource* timeout = g_timeout_source_new_seconds(static_cast<guint>(limit.count()));
    g_source_set_callback(
        timeout, +[](gpointer data) -> gboolean {
            g_cancellable_cancel(static_cast<GCancellable*>(data));
            return G_SOURCE_REMOVE;
        },
        cancellable, nullptr);
    g_source_attach(timeout, context);
    while (!state.done) g_main_context_iteration(context, TRUE);
    g_source_destroy(timeout);
    g_source_unref(timeout);
    g_list_free(objects);
    g_object_unref(cancellable);
    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);
    return state.unlocked;
}

}  // namespace

std::optional<SecretText> SecretServiceKeychainStore::load(const std::string& name, const std::string& account) {
    auto service = connect();
    if (!service) return std::nullopt;
    GError* error = nullptr;
    GList* items = search(service->get(), name, account, &error);
    if (error) {
        logError("the token could not be read", error);
        return std::nullopt;
    }
    std::optional<SecretText> found;
    for (GList* it = items; it && !found; it = it->next) {
        auto* item = SECRET_ITEM(it->data);
        if (secret_item_get_locked(item)) continue;
        SecretValue* value = secret_item_get_secret(item);
        if (!value) continue;
        gsize length = 0;
        const gchar* bytes = secret_value_get(value, &length);
        found = SecretText(std::string(bytes, length));
        secret_value_unref(value);
    }
    g_list_free_full(items, g_object_unref);
    return found;
}

Status<OAuthError> SecretServiceKeychainStore::save(const SecretText& data, const std::string& name,
                                                   const std::string& account) {
    auto service = connect();
    if (!service) return fail(service.error());
    Attributes attributes(name, account);
    SecretValue* value = secret_value_new(data.str().data(), static_cast<gssize>(data.str().size()), "application/json");
    GError* error = nullptr;
    // An item with the same attributes in the collection is replaced, never doubled.
    gboolean stored = secret_service_store_sync(service->get(), schema(), attributes.table, SECRET_COLLECTION_DEFAULT,
                                                "velko GitHub account", value, nullptr, &error);
    secret_value_unref(value);
    if (stored) return Ok{};
    OAuthError kind = classify(error);
    logError("the token could not be stored", error);
    return fail(kind);
}

void SecretServiceKeychainStore::remove(const std::string& name, const std::string& account) {
    auto service = connect();
    if (!service) return;
    Attributes attributes(name, account);
    GError* error = nullptr;
    secret_service_clear_sync(service->get(), schema(), attributes.table, nullptr, &error);
    if (error) logError("the token could not be removed", error);
}

Status<OAuthError> SecretServiceKeychainStore::checkAvailable() {
    auto service = connect();
    if (!service) return fail(service.error());
    GError* error = nullptr;
    GRef<SecretCollection> collection(secret_collection_for_alias_sync(
        service->get(), SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE, nullptr, &error));
    if (error) {
        logError("the Secret Service did not answer", error);
        return fail(OAuthError::secretServiceUnavailable);
    }
    // No default collection yet: the first save creates one (the service asks
    // the user for its password then).
    if (!collection || !secret_collection_get_locked(collection.get())) return Ok{};
    if (unlockWithin(service->get(), G_DBUS_PROXY(collection.get()), kUnlockLimit)) return Ok{};
    return fail(OAuthError::keyringLocked);
}

}  // namespace velko
