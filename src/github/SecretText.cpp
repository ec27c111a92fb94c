#include "github/SecretText.h"

#include <openssl/crypto.h>

namespace velko {

void wipe(std::string& text) {
    // The whole capacity: a text that shrank keeps its old bytes behind its end.
    if (text.capacity() > 0) OPENSSL_cleanse(text.data(), text.capacity());
    text.clear();
}

}  // namespace velko
