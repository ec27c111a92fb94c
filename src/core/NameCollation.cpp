#include "core/NameCollation.h"

#include <glib.h>

#include <memory>

namespace velko {

std::string caseInsensitiveSortKey(std::string_view name) {
    if (!g_utf8_validate(name.data(), static_cast<gssize>(name.size()), nullptr)) {
        std::string lowered(name);
        for (char& c : lowered)
            if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        return lowered;
    }
    std::unique_ptr<gchar, decltype(&g_free)> folded(g_utf8_casefold(name.data(), static_cast<gssize>(name.size())),
                                                     g_free);
    std::unique_ptr<gchar, decltype(&g_free)> key(g_utf8_collate_key(folded.get(), -1), g_free);
    return key.get();
}

}  // namespace velko
