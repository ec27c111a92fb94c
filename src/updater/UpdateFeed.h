#pragma once
// The update feed: where it is, whether it is genuine, what it offers.
//
// The feed is an RSS "appcast" signed by whoever publishes velko: beside
// "<feed>" lies "<feed>.sig", the base64 of an Ed25519 signature over the
// feed's exact bytes, checked against the public key shipped in Info.json
// before a single item is read. Nothing is ever downloaded or run from it:
// an item only names a version and the https page where to get it.
//
// Pure functions, any thread.

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Json.h"
#include "updater/UpdateVersion.h"

namespace velko {

// Feed and key of an updater that may run.
struct UpdaterSettings {
    std::string feedURL;
    std::string publicKey;  // the 32 raw bytes of an Ed25519 key
};

using EnvironmentLookup = std::function<std::optional<std::string>(const char* name)>;

// The feed: APPCAST_URL (trimmed) when it is a URL, else SUFeedURL of the
// bundle information when it is one, else nothing.
std::optional<std::string> resolveFeedURL(const Json& bundleInfo, const EnvironmentLookup& environment);

// Settings only with a public key (SUPublicEDKey, base64 of 32 bytes; anything
// else counts as missing) and a feed. Without them there is no updater.
std::optional<UpdaterSettings> resolveUpdaterSettings(const Json& bundleInfo, const EnvironmentLookup& environment);

// Info.json of the resources folder as an object (empty when absent or unreadable).
Json readBundleInfo(const std::string& resourceDirectory);

// "<feed>.sig": the suffix goes on the path, before any query or fragment.
std::string signatureURL(std::string_view feedURL);

// True when `signatureText` (base64, blanks around it allowed) is a valid
// Ed25519 signature of `message` under `publicKey`.
bool verifyFeedSignature(std::string_view message, std::string_view signatureText, std::string_view publicKey);

struct AppcastItem {
    std::optional<std::string> version;             // <version>, or the enclosure's version attribute
    std::optional<std::string> shortVersionString;  // element, or the enclosure's attribute
    std::optional<std::string> link;                // <link>
};

inline constexpr size_t kMaxFeedBytes = 1024 * 1024;

// The items of a feed, matched by local name whatever their namespace.
// Nothing for text that is not well-formed XML, is larger than kMaxFeedBytes
// or has a document type declaration (where entity tricks live); the network
// is never asked for anything the feed names.
std::optional<std::vector<AppcastItem>> parseAppcast(std::string_view xml);

struct UpdateOffer {
    std::string version;         // as the feed wrote it
    std::string displayVersion;  // shortVersionString, else version
    std::string link;            // https only
};

// The newest item above `current`, in any order; items without a version,
// without an https link, or pre-releases for a release build are passed over.
std::optional<UpdateOffer> newestUpdate(const std::vector<AppcastItem>& items, const Version& current);

// True for an absolute https URL with a host.
bool isHttpsURL(std::string_view text);

}  // namespace velko
