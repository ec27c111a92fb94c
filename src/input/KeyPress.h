#pragma once
// A key press as the window's key monitor sees it, before the page: the GDK
// keyval with velko's own modifier flags, so that the logic above it builds
// and is tested without a toolkit header.

#include <cstdint>
#include <string>

namespace velko {

enum KeyModifier : uint32_t {
    kModifierShift = 1u << 0,
    kModifierControl = 1u << 1,
    kModifierAlt = 1u << 2,
    kModifierSuper = 1u << 3,
};

struct KeyPress {
    uint32_t keyval = 0;     // GDK keyval (an X keysym)
    uint32_t modifiers = 0;  // KeyModifier flags
    std::string text;        // the characters the key produces, UTF-8 (may be empty)
};

// The terminal's native input path; answers true when it consumed the key.
class NativeKeyHandling {
public:
    virtual ~NativeKeyHandling() = default;
    virtual bool handleNativeKeyDown(const KeyPress& press) = 0;
};

}  // namespace velko
