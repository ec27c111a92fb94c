#include "core/NameCollation.h"

#include <glib.h>

#include <memory>

namespace velko {

std::string caseInsensitiveSortKey(std::string_view name) {
    bool ascii = true;
    for (char c : name) ascii = ascii && static_cast<unsigned char>(c) < 0x80;
    std::string folded;
    if (ascii) {
        // Case folding of ASCII text is exactly this, and most names are ASCII.
        folded.assign(name);
        for (char& c : folded)
            if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    } else if (!g_utf8_validate(name.data(), static_cast<gssize>(name.size()), nullptr)) {
        // Names that are not UTF-8 (possible on Linux) sort by their lower-cased bytes.
        std::string lowered(name);
        for (char& c : lowered)
            if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        return lowered;
    } else {
        std::unique_ptr<gchar, decltype(&g_free)> casefolded(g_utf8_casefold(name.data(), static_cast<gssize>(name.size())),
                                                             g_free);
        folded = casefolded.get();
    }
    std::unique_ptr<gchar, decltype(&g_free)> key(g_utf8_collate_key(folded.data(), static_cast<gssize>(folded.size())),
                                                  g_free);
    return key.get();
}

}  // namespace velko
