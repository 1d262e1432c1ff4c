#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

void run(const std::string& bytes)
{
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

/// The target ends the process at a broken promise.
TEST(HttpCorpus, keepsItsPromises)
{
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(HTTP_CORPUS)) {
        std::ifstream file(entry.path(), std::ios::binary);
        std::string bytes{std::istreambuf_iterator<char>(file), {}};
        run(bytes);
        // Every short entry also with each of its bytes broken in a few ways.
        for (std::size_t i = 0; i < bytes.size() && bytes.size() < 300; ++i) {
            const char original = bytes[i];
            for (const char other : {'\0', '\r', '\n', ' ', ':', ';', '%', '0', '\x80'}) {
                bytes[i] = other;
                run(bytes);
            }
            bytes[i] = original;
            run(bytes.substr(0, i));
        }
        ++files;
    }
    EXPECT_GE(files, 10);
}

} // namespace
