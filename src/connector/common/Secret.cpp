#include "connector/common/Secret.h"

#include <sys/random.h>

#include <cerrno>
#include <memory>
#include <stdexcept>
#include <system_error>

#include <openssl/crypto.h>
#include <openssl/evp.h>
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
    // Looked up once: the one-call functions of the library do it every time.
    static const std::unique_ptr<EVP_MD, decltype(&EVP_MD_free)> algorithm(EVP_MD_fetch(nullptr, "SHA256", nullptr),
                                                                           EVP_MD_free);
    std::string digest(SHA256_DIGEST_LENGTH, '\0');
    if (!algorithm || EVP_Digest(bytes.data(), bytes.size(), reinterpret_cast<unsigned char*>(digest.data()), nullptr,
                                 algorithm.get(), nullptr) != 1)
        throw std::runtime_error("SHA-256 is not available.");
    return digest;
}

bool equalDigests(const std::string& left, const std::string& right)
{
    return left.size() == right.size() && CRYPTO_memcmp(left.data(), right.data(), left.size()) == 0;
}

} // namespace connector::common
