// The corpus of the JSON fuzz target, through the same function.

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

void run(const std::string& text)
{
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
}

TEST(JsonCorpus, EveryFileAndEveryBeginningAndEveryDamageOfIt)
{
    std::size_t files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(JSON_CORPUS)) {
        SCOPED_TRACE(entry.path().string());
        ++files;
        std::ifstream in(entry.path(), std::ios::binary);
        const std::string text{std::istreambuf_iterator<char>(in), {}};
        run(text);
        for (std::size_t i = 0; i < text.size(); ++i) {
            run(text.substr(0, i));
            for (const char byte : {'"', '0', '}', ',', '\xFF'}) {
                auto damaged = text;
                damaged[i] = byte;
                run(damaged);
            }
        }
    }
    EXPECT_GE(files, 8u);
}

} // namespace
