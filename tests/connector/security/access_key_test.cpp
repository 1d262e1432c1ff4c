#include "connector/security/AccessKey.h"

#include <unistd.h>

#include "connector/security/security_fixture.h"

namespace connector::security::v1 {
namespace {

class AccessKeyFile : public test::SecurityTest
{
protected:
    /// "" for a file that was taken.
    static std::string problem(const std::string& path)
    {
        try {
            const AccessKey key(path);
            return "";
        } catch (const std::runtime_error& error) {
            const std::string text = error.what();
            const std::string start = "The access key file " + path + " ";
            return text.starts_with(start) ? text.substr(start.size()) : "unnamed: " + text;
        }
    }
};

const std::string kSecret = "0123456789abcdef0123456789ABCDE/";

TEST_F(AccessKeyFile, HoldsASecretOfItsOwner)
{
    for (const ::mode_t mode : {0600, 0400, 0700}) {
        const AccessKey key(file("key", " \n" + kSecret + "\r\n", mode));
        EXPECT_TRUE(key.matches(kSecret));
        EXPECT_FALSE(key.matches(kSecret + "\n"));
        EXPECT_FALSE(key.matches(kSecret.substr(1)));
        EXPECT_FALSE(key.matches(""));
        std::filesystem::remove(folder / "key");
    }
}

TEST_F(AccessKeyFile, IsRefusedWhenOthersCouldKnowOrGuessIt)
{
    for (const ::mode_t mode : {0640, 0604, 0620, 0610, 0666})
        EXPECT_EQ(problem(file("open" + std::to_string(mode), kSecret, mode)),
                  "is open to others; its mode must be 0600 or 0400.");
    EXPECT_EQ(problem(file("short", " " + kSecret.substr(1) + " \n")), "holds fewer than 32 characters.");
    EXPECT_EQ(problem(file("empty", "")), "holds fewer than 32 characters.");
    EXPECT_EQ(problem(file("blank", std::string(100, ' '))), "holds fewer than 32 characters.");
    EXPECT_EQ(problem(file("words", kSecret + " " + kSecret)), "holds spaces or characters that are not ASCII.");
    EXPECT_EQ(problem(file("umlaut", kSecret + "\xc3\xa4")), "holds spaces or characters that are not ASCII.");
    EXPECT_EQ(problem(file("large", std::string(4'097, 'x'))), "has more than 4096 bytes.");
    EXPECT_EQ(problem(folder / "missing"), "cannot be read: No such file or directory.");
    EXPECT_EQ(problem(folder), "is no regular file.");
    ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
    EXPECT_EQ(problem(folder / "pipe"), "is no regular file.") << "nor is it waited for";
    if (::geteuid() == 0) {
        const auto foreign = file("foreign", kSecret);
        ASSERT_EQ(::chown(foreign.c_str(), 65'534, 65'534), 0);
        EXPECT_EQ(problem(foreign), "belongs to another user (65534).");
    }
}

} // namespace
} // namespace connector::security::v1
