// The corpus of the conversions' fuzz target, through the same function.

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

/// The target ends the process at a broken promise.
TEST(ValuesCorpus, EveryFileAndEveryBeginningOfIt)
{
    std::size_t files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(VALUES_CORPUS)) {
        SCOPED_TRACE(entry.path().string());
        ++files;
        std::ifstream in(entry.path(), std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(in), {}};
        for (std::size_t size = bytes.size() + 1; size-- > 0;)
            LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), size);
    }
    EXPECT_GE(files, 50u);
}

} // namespace
