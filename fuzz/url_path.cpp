// Decodes arbitrary bytes as the path of a request. What is accepted must mean one thing to whoever reads it, whether
// it decodes it once more or not.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "connector/http/HttpText.h"
#include "connector/http/UrlPath.h"
#include "platform/fl/i18n.h"

using namespace connector::http;

namespace {

void require(bool condition)
{
    if (!condition)
        std::abort();
}

void checkPath(std::string_view path)
{
    require(fl::i18n::isValidUtf8(path) && path.find_first_of("\\:") == std::string_view::npos);
    require(std::none_of(path.begin(), path.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte < 0x20 || byte == 0x7f;
    }));
    require(path.front() == '/');
    for (std::size_t begin = 1; begin < path.size();) {
        const auto end = std::min(path.find('/', begin), path.size());
        const std::string_view segment = path.substr(begin, end - begin);
        require(!segment.empty() && segment.back() != '.' && segment.back() != ' ');
        begin = end + 1;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view raw(reinterpret_cast<const char*>(data), size);
    std::string path;
    if (decodePath(raw, path))
        return 0;
    checkPath(path);
    require(path.size() <= raw.size());

    // A second reader either refuses it or, where nothing is encoded any more, takes it for the same.
    std::string again;
    if (!decodePath(path, again)) {
        checkPath(again);
        require(path.find('%') != std::string::npos || again == path);
    }
    return 0;
}
