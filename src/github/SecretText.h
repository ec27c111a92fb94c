#pragma once
// Tokens, codes and verifiers in memory: wiped with OPENSSL_cleanse (which the
// optimiser may not drop) when they are no longer needed, so a core dump or a
// reused heap block holds no stale copy.

#include <string>

namespace velko {

// Overwrites the text's bytes, then empties it.
void wipe(std::string& text);

// A text that wipes itself when it goes away. Moves carry the buffer along.
class SecretText {
public:
    SecretText() = default;
    explicit SecretText(std::string text) : m_text(std::move(text)) {}
    SecretText(const SecretText&) = default;
    SecretText& operator=(const SecretText& other) {
        if (this != &other) {
            wipe(m_text);
            m_text = other.m_text;
        }
        return *this;
    }
    SecretText(SecretText&& other) noexcept : m_text(std::move(other.m_text)) { wipe(other.m_text); }
    SecretText& operator=(SecretText&& other) noexcept {
        if (this != &other) {
            wipe(m_text);
            m_text = std::move(other.m_text);
            wipe(other.m_text);
        }
        return *this;
    }
    ~SecretText() { wipe(m_text); }

    const std::string& str() const { return m_text; }
    bool empty() const { return m_text.empty(); }
    friend bool operator==(const SecretText& a, const SecretText& b) { return a.m_text == b.m_text; }

private:
    std::string m_text;
};

}  // namespace velko
