#include "updater/UpdateFeed.h"

#include <glib.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <openssl/evp.h>

#include <cctype>
#include <memory>
#include <mutex>

#include "core/Base64.h"
#include "core/Paths.h"

namespace velko {

namespace {

std::string trimmed(std::string_view text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.remove_suffix(1);
    return std::string(text);
}

bool isURL(const std::string& text) {
    return !text.empty() && g_uri_is_valid(text.c_str(), G_URI_FLAGS_NONE, nullptr);
}

}  // namespace

std::optional<std::string> resolveFeedURL(const Json& bundleInfo, const EnvironmentLookup& environment) {
    if (auto fromEnvironment = environment("APPCAST_URL")) {
        std::string url = trimmed(*fromEnvironment);
        if (isURL(url)) return url;
    }
    if (auto fromBundle = json::string(&bundleInfo, "SUFeedURL"); fromBundle && isURL(*fromBundle)) return fromBundle;
    return std::nullopt;
}

std::optional<UpdaterSettings> resolveUpdaterSettings(const Json& bundleInfo, const EnvironmentLookup& environment) {
    auto keyText = json::string(&bundleInfo, "SUPublicEDKey");
    auto key = keyText ? base64Decode(trimmed(*keyText)) : std::nullopt;
    if (!key || key->size() != 32) return std::nullopt;
    auto feed = resolveFeedURL(bundleInfo, environment);
    if (!feed) return std::nullopt;
    return UpdaterSettings{std::move(*feed), std::move(*key)};
}

Json readBundleInfo(const std::string& resourceDirectory) {
    std::string text;
    if (!readWholeFile(resourceDirectory + "/Info.json", text)) return Json::object();
    auto info = parseJson(text);
    return info && info->is_object() ? std::move(*info) : Json::object();
}

std::string signatureURL(std::string_view feedURL) {
    size_t end = feedURL.find_first_of("?#");
    if (end == std::string_view::npos) end = feedURL.size();
    std::string url(feedURL.substr(0, end));
    url += ".sig";
    url.append(feedURL.substr(end));
    return url;
}

bool verifyFeedSignature(std::string_view message, std::string_view signatureText, std::string_view publicKey) {
    auto signature = base64Decode(trimmed(signatureText));
    if (!signature || signature->size() != 64 || publicKey.size() != 32) return false;
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
        EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, reinterpret_cast<const unsigned char*>(publicKey.data()),
                                    publicKey.size()),
        &EVP_PKEY_free);
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
    if (!key || !context) return false;
    // Ed25519 signs the message itself: no digest is named.
    if (EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key.get()) != 1) return false;
    return EVP_DigestVerify(context.get(), reinterpret_cast<const unsigned char*>(signature->data()), signature->size(),
                            reinterpret_cast<const unsigned char*>(message.data()), message.size()) == 1;
}

namespace {

// A document type declaration ends the parse: entities are where feeds turn into bombs.
void refuseDocumentType(void* context, const xmlChar*, const xmlChar*, const xmlChar*) {
    auto* parser = static_cast<xmlParserCtxtPtr>(context);
    parser->wellFormed = 0;
    xmlStopParser(parser);
}

bool named(const xmlNode* node, const char* localName) {
    return node->type == XML_ELEMENT_NODE && xmlStrEqual(node->name, BAD_CAST localName);
}

std::optional<std::string> textOf(const xmlNode* node) {
    xmlChar* content = xmlNodeGetContent(node);
    if (!content) return std::nullopt;
    std::string text = trimmed(reinterpret_cast<const char*>(content));
    xmlFree(content);
    return text.empty() ? std::nullopt : std::optional(text);
}

std::optional<std::string> attributeOf(const xmlNode* node, const char* localName) {
    for (const xmlAttr* attribute = node->properties; attribute; attribute = attribute->next) {
        if (!xmlStrEqual(attribute->name, BAD_CAST localName)) continue;
        return textOf(reinterpret_cast<const xmlNode*>(attribute));
    }
    return std::nullopt;
}

AppcastItem readItem(const xmlNode* item) {
    AppcastItem out;
    std::optional<std::string> enclosureVersion, enclosureShortVersion;
    for (const xmlNode* child = item->children; child; child = child->next) {
        if (named(child, "version") && !out.version) out.version = textOf(child);
        else if (named(child, "shortVersionString") && !out.shortVersionString) out.shortVersionString = textOf(child);
        else if (named(child, "link") && !out.link) out.link = textOf(child);
        else if (named(child, "enclosure") && !enclosureVersion && !enclosureShortVersion) {
            enclosureVersion = attributeOf(child, "version");
            enclosureShortVersion = attributeOf(child, "shortVersionString");
        }
    }
    if (!out.version) out.version = enclosureVersion;
    if (!out.shortVersionString) out.shortVersionString = enclosureShortVersion;
    return out;
}

void collectItems(const xmlNode* node, std::vector<AppcastItem>& items) {
    for (; node; node = node->next) {
        if (node->type != XML_ELEMENT_NODE) continue;
        if (named(node, "item")) {
            items.push_back(readItem(node));
            continue;
        }
        collectItems(node->children, items);
    }
}

}  // namespace

std::optional<std::vector<AppcastItem>> parseAppcast(std::string_view xml) {
    if (xml.empty() || xml.size() > kMaxFeedBytes) return std::nullopt;
    static std::once_flag initialised;
    std::call_once(initialised, [] { xmlInitParser(); });
    std::unique_ptr<xmlParserCtxt, decltype(&xmlFreeParserCtxt)> parser(xmlNewParserCtxt(), &xmlFreeParserCtxt);
    if (!parser || !parser->sax) return std::nullopt;
    parser->sax->internalSubset = &refuseDocumentType;
    parser->sax->externalSubset = &refuseDocumentType;
    // No network, no entity substitution, no external DTD: none of NOENT, DTDLOAD, DTDATTR.
    constexpr int kOptions = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;
    std::unique_ptr<xmlDoc, decltype(&xmlFreeDoc)> document(
        xmlCtxtReadMemory(parser.get(), xml.data(), static_cast<int>(xml.size()), nullptr, nullptr, kOptions),
        &xmlFreeDoc);
    if (!document || !parser->wellFormed || document->intSubset) return std::nullopt;
    std::vector<AppcastItem> items;
    collectItems(xmlDocGetRootElement(document.get()), items);
    return items;
}

bool isHttpsURL(std::string_view text) {
    std::string url(text);
    GUri* uri = g_uri_parse(url.c_str(), G_URI_FLAGS_NONE, nullptr);
    if (!uri) return false;
    const char* scheme = g_uri_get_scheme(uri);
    const char* host = g_uri_get_host(uri);
    bool https = scheme && g_ascii_strcasecmp(scheme, "https") == 0 && host && *host;
    g_uri_unref(uri);
    return https;
}

std::optional<UpdateOffer> newestUpdate(const std::vector<AppcastItem>& items, const Version& current) {
    std::optional<UpdateOffer> best;
    std::optional<Version> bestVersion;
    for (const auto& item : items) {
        auto version = item.version ? parseVersion(*item.version) : std::nullopt;
        if (!version || !item.link || !isHttpsURL(*item.link)) continue;
        if (version->isPreRelease() && !current.isPreRelease()) continue;
        if (compareVersions(*version, current) <= 0) continue;
        if (bestVersion && compareVersions(*version, *bestVersion) <= 0) continue;
        bestVersion = version;
        best = UpdateOffer{*item.version, item.shortVersionString.value_or(*item.version), *item.link};
    }
    return best;
}

}  // namespace velko
