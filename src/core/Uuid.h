#pragma once
// Uuid: 128-bit identity of projects and sessions. It crosses the bridge as
// canonical upper-case text (8-4-4-4-12); parsing accepts either case and
// refuses everything else, so text that is no UUID counts as absent.

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace velko {

class Uuid {
public:
    Uuid() = default;  // the nil UUID
    explicit Uuid(const std::array<uint8_t, 16>& bytes) : m_bytes(bytes) {}

    // A random (version 4) UUID from the kernel's random source.
    static Uuid random();
    static std::optional<Uuid> parse(std::string_view text);

    std::string toString() const;
    const std::array<uint8_t, 16>& bytes() const { return m_bytes; }

    friend bool operator==(const Uuid&, const Uuid&) = default;
    friend auto operator<=>(const Uuid&, const Uuid&) = default;

private:
    std::array<uint8_t, 16> m_bytes{};
};

}  // namespace velko

template <>
struct std::hash<velko::Uuid> {
    size_t operator()(const velko::Uuid& id) const noexcept;
};
