#include "platform/IBusInputSources.h"

#include <gio/gio.h>
#include <signal.h>

#include <array>
#include <cstdlib>
#include <fstream>
#include <string>

#include "core/Environment.h"
#include "core/Log.h"
#include "core/Paths.h"

namespace velko {

namespace {

const Logger kLog("app.velko", "input");

constexpr const char* kBusName = "org.freedesktop.IBus";
constexpr const char* kBusPath = "/org/freedesktop/IBus";
constexpr const char* kBusInterface = "org.freedesktop.IBus";
// A key press must never wait long on a stuck daemon.
constexpr int kCallTimeoutMs = 250;

std::string firstLine(const std::string& path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

// Where the daemon of this display wrote its address:
// $XDG_CONFIG_HOME/ibus/bus/<machine id>-<host>-<display number>.
std::optional<std::string> addressFromFile() {
    std::string machine = firstLine("/var/lib/dbus/machine-id");
    if (machine.empty()) machine = firstLine("/etc/machine-id");
    if (machine.empty()) return std::nullopt;

    std::string host = "unix", display;
    if (auto wayland = environmentValue("WAYLAND_DISPLAY")) {
        display = *wayland;
    } else if (auto x = environmentValue("DISPLAY")) {
        std::string text = *x;
        auto colon = text.rfind(':');
        if (colon == std::string::npos) return std::nullopt;
        if (colon > 0) host = text.substr(0, colon);
        display = text.substr(colon + 1);
        display = display.substr(0, display.find('.'));
    } else {
        return std::nullopt;
    }
    std::string folder = environmentValue("XDG_CONFIG_HOME").value_or(homeDirectory() + "/.config");
    std::ifstream in(folder + "/ibus/bus/" + machine + "-" + host + "-" + display);
    std::string line, address;
    long pid = 0;
    while (std::getline(in, line)) {
        if (line.rfind("IBUS_ADDRESS=", 0) == 0) address = line.substr(13);
        if (line.rfind("IBUS_DAEMON_PID=", 0) == 0) pid = std::strtol(line.c_str() + 16, nullptr, 10);
    }
    // A file left behind by a daemon that is gone names a dead socket.
    if (address.empty() || pid <= 0 || ::kill(static_cast<pid_t>(pid), 0) != 0) return std::nullopt;
    return address;
}

// Layouts whose letters are not ASCII: an IBus layout engine of one of these
// cannot type a shell command.
bool isNonLatinLayout(const std::string& layout) {
    static constexpr std::array kNonLatin = {"ru", "ua", "by", "bg", "mk", "rs", "gr", "il", "ara", "ir", "af",
                                             "th", "kr", "cn", "in", "bd", "np", "lk", "la", "kh", "et", "ge", "am"};
    for (const char* name : kNonLatin)
        if (layout == name) return true;
    return false;
}

// An IBusEngineDesc as it travels: (s a{sv} name longname description language
// license author icon layout …), boxed in a variant.
std::optional<InputSourceInfo> sourceFromEngine(GVariant* boxed) {
    GVariant* desc = g_variant_is_of_type(boxed, G_VARIANT_TYPE_VARIANT) ? g_variant_get_variant(boxed)
                                                                         : g_variant_ref(boxed);
    std::optional<InputSourceInfo> info;
    if (g_variant_is_of_type(desc, G_VARIANT_TYPE_TUPLE) && g_variant_n_children(desc) > 9) {
        auto text = [&](gsize index) -> std::string {
            GVariant* child = g_variant_get_child_value(desc, index);
            std::string value = g_variant_is_of_type(child, G_VARIANT_TYPE_STRING) ? g_variant_get_string(child, nullptr)
                                                                                    : "";
            g_variant_unref(child);
            return value;
        };
        std::string name = text(2), language = text(5), layout = text(9);
        if (!name.empty()) {
            InputSourceInfo source;
            source.id = name;
            source.isEnabled = true;
            source.isSelectCapable = true;
            if (name.rfind("xkb:", 0) == 0) {
                source.isASCIICapable = !isNonLatinLayout(layout);
                source.sourceType = "layout";
            } else {
                source.sourceType = kInputSourceTypeInputMode;
                source.inputModeID = language == "ja" ? std::string(kJapaneseInputModeID) : language + ".input-method";
            }
            info = std::move(source);
        }
    }
    g_variant_unref(desc);
    return info;
}

class IBusInputSources final : public InputSourceServicing {
public:
    explicit IBusInputSources(GDBusConnection* connection) : m_connection(connection) {
        m_subscription = g_dbus_connection_signal_subscribe(
            m_connection, nullptr, kBusInterface, "GlobalEngineChanged", kBusPath, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
            +[](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant*, gpointer data) {
                static_cast<IBusInputSources*>(data)->m_current.reset();
            },
            this, nullptr);
    }
    ~IBusInputSources() override {
        g_dbus_connection_signal_unsubscribe(m_connection, m_subscription);
        g_object_unref(m_connection);
    }

    bool isAvailable() override { return !g_dbus_connection_is_closed(m_connection); }

    std::optional<InputSourceInfo> currentSource() override {
        if (!m_current) {
            GVariant* engine = property("GlobalEngine");
            if (!engine) engine = call("GetGlobalEngine", nullptr);
            if (!engine) return std::nullopt;
            m_current = sourceFromEngine(engine);
            g_variant_unref(engine);
        }
        return m_current;
    }

    std::optional<InputSourceInfo> currentASCIICapableSource() override {
        auto current = currentSource();
        if (current && current->isASCIICapable == std::optional<bool>(true)) return current;
        if (auto all = keyboardSources())
            for (auto& source : *all)
                if (source.isASCIICapable == std::optional<bool>(true)) return source;
        return std::nullopt;
    }

    std::optional<InputSourceInfo> sourceForLanguage(const std::string& language) override {
        if (language != "ja") return std::nullopt;
        if (auto all = keyboardSources())
            for (auto& source : *all)
                if (source.inputModeID == std::optional<std::string>(kJapaneseInputModeID)) return source;
        return std::nullopt;
    }

    std::optional<std::vector<InputSourceInfo>> keyboardSources() override {
        GVariant* list = call("ListActiveEngines", nullptr);
        if (!list) list = property("ActiveEngines");
        if (!list) return std::nullopt;
        std::vector<InputSourceInfo> sources;
        GVariant* engines = g_variant_is_of_type(list, G_VARIANT_TYPE_TUPLE) ? g_variant_get_child_value(list, 0)
                                                                              : g_variant_ref(list);
        if (g_variant_is_of_type(engines, G_VARIANT_TYPE_ARRAY)) {
            for (gsize i = 0; i < g_variant_n_children(engines); ++i) {
                GVariant* engine = g_variant_get_child_value(engines, i);
                if (auto source = sourceFromEngine(engine)) sources.push_back(std::move(*source));
                g_variant_unref(engine);
            }
        }
        g_variant_unref(engines);
        g_variant_unref(list);
        return sources;
    }

    bool select(const InputSourceInfo& source) override {
        GVariant* answer = call("SetGlobalEngine", g_variant_new("(s)", source.id.c_str()));
        if (!answer) return false;
        g_variant_unref(answer);
        // Read back from the daemon on the next key: it knows what it switched to.
        m_current.reset();
        return true;
    }

private:
    // The method's answer, or null on any failure (logged once per name).
    GVariant* call(const char* method, GVariant* parameters) {
        GError* error = nullptr;
        GVariant* answer = g_dbus_connection_call_sync(m_connection, kBusName, kBusPath, kBusInterface, method,
                                                       parameters, nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START,
                                                       kCallTimeoutMs, nullptr, &error);
        if (error) {
            kLog.debug(std::string("IBus ") + method + ": " + error->message);
            g_error_free(error);
        }
        return answer;
    }

    // A property's value (unboxed from the Get answer), or null.
    GVariant* property(const char* name) {
        GError* error = nullptr;
        GVariant* answer = g_dbus_connection_call_sync(
            m_connection, kBusName, kBusPath, "org.freedesktop.DBus.Properties", "Get",
            g_variant_new("(ss)", kBusInterface, name), G_VARIANT_TYPE("(v)"), G_DBUS_CALL_FLAGS_NO_AUTO_START,
            kCallTimeoutMs, nullptr, &error);
        if (!answer) {
            if (error) g_error_free(error);
            return nullptr;
        }
        GVariant* boxed = g_variant_get_child_value(answer, 0);
        GVariant* value = g_variant_get_variant(boxed);
        g_variant_unref(boxed);
        g_variant_unref(answer);
        return value;
    }

    GDBusConnection* m_connection;
    guint m_subscription = 0;
    std::optional<InputSourceInfo> m_current;
};

}  // namespace

std::shared_ptr<InputSourceServicing> connectIBusInputSources() {
    std::optional<std::string> address = environmentValue("IBUS_ADDRESS");
    if (!address) address = addressFromFile();
    if (!address) {
        kLog.info("no IBus daemon: keys take the web view's path");
        return nullptr;
    }
    GError* error = nullptr;
    GDBusConnection* connection = g_dbus_connection_new_for_address_sync(
        address->c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (!connection) {
        kLog.info(std::string("IBus is not reachable: ") + (error ? error->message : "?"));
        if (error) g_error_free(error);
        return nullptr;
    }
    g_dbus_connection_set_exit_on_close(connection, FALSE);
    return std::make_shared<IBusInputSources>(connection);
}

}  // namespace velko
