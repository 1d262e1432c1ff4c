#include "connector/common/Secret.h"

#include <sys/random.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include <openssl/crypto.h>
#include <openssl/sha.h>

namespace connector::common {

std::string randomHex(std::size_t bytes)
{
    std::string raw(bytes, '\0');
    for (std::size_t filled = 0; filled < bytes;) {
        const auto got = ::getrandom(raw.data() + filled, bytes - filled, 0);
        if (got > 0)
            filled += static_cast<std::size_t>(got);
        else if (errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "The operating system gave no random bytes");
    }
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * bytes);
    for (const char byte : raw) {
        text += kDigits[static_cast<unsigned char>(byte) >> 4];
        text += kDigits[static_cast<unsigned char>(byte) & 15];
    }
    return text;
}

std::string sha256(std::string_view bytes)
{
    std::string digest(SHA256_DIGEST_LENGTH, '\0');
    SHA256(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(),
           reinterpret_cast<unsigned char*>(digest.data()));
    return digest;
}

bool equalSecrets(std::string_view left, std::string_view right)
{
    const auto a = sha256(left);
    const auto b = sha256(right);
    return CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

} // namespace connector::common
