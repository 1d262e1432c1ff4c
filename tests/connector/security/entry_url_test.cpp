#include "connector/security/EntryUrl.h"

#include <gtest/gtest.h>

namespace connector::security::v1 {
namespace {

TEST(EntryUrl, FindsExactlyOneNonce)
{
    const std::pair<std::string, std::string> cases[] = {
        {"nonce=ab", "ab"},
        {"a=1&nonce=ab&b", "ab"},
        {"nonce=a=b", "a=b"},
        {"nonce=a&nonce=a", ""},
        {"nonce=", ""},
        {"nonce", ""},
        {"xnonce=a", ""},
        {"Nonce=a", ""},
        {"%6eonce=a&nonces=b", ""},
        {"", ""},
        {"&&nonce=ab&", "ab"},
        {"nonce=&nonce=ab", ""},
        {"a=nonce=ab;nonce=cd", ""},
    };
    for (const auto& [query, nonce] : cases)
        EXPECT_EQ(entryNonce(query), nonce) << query;
}

TEST(EntryUrl, NeverLeadsToAnotherHost)
{
    struct Case
    {
        std::string target;
        std::string query;
        std::string location;
    };
    const Case cases[] = {
        {"/?nonce=1", "nonce=1", "/"},
        {"/ui/index.html?x=1&nonce=2&y=%20z", "x=1&nonce=2&y=%20z", "/ui/index.html?x=1&y=%20z"},
        {"/a%20b/?nonce=1&&x", "nonce=1&&x", "/a%20b/?&x"},
        {"//evil.example/?nonce=1", "nonce=1", "/evil.example/"},
        {"///evil.example", "", "/evil.example"},
        {"/\\evil.example", "", "/evil.example"},
        {"/\\/\\evil.example", "", "/evil.example"},
        {"\\\\evil.example", "", "/"},
        {"/\t/evil.example", "", "/%09/evil.example"},
        {"/a\\b\r\nX: y", "", "/a%5Cb%0D%0AX:%20y"},
        {"http://evil.example/", "", "/"},
        {"*", "", "/"},
        {"", "", "/"},
        {"/gr\xc3\xbc\xc3\x9f#x", "q=\xc3\xbc\t#", "/gr%C3%BC%C3%9F%23x?q=%C3%BC%09%23"},
    };
    for (const auto& [target, query, location] : cases)
        EXPECT_EQ(cleanLocation(target, query), location) << target;
}

TEST(EntryUrl, NeedsABaseThatIsOne)
{
    EXPECT_EQ(entryUrl("http://127.0.0.1:8080/", "ab"), "http://127.0.0.1:8080/?nonce=ab");
    EXPECT_EQ(entryUrl("HTTPS://[::1]:8443", "ab"), "HTTPS://[::1]:8443/?nonce=ab");
    EXPECT_EQ(entryUrl("https://lab.example/ui/", "ab"), "https://lab.example/ui/?nonce=ab");
    for (const char* url : {"", "/", "//x/", "ftp://x/", "javascript:alert(1)", "http://", "http:///x", "http://u@x/",
                            "http://x/?a=b", "http://x/#a", "http://x?y/", "http://x/a b", "http://x:70000/",
                            "http://x/\r\nSet-Cookie: a", "http://x\\y/"})
        EXPECT_THROW(entryUrl(url, "ab"), std::invalid_argument) << url;
}

} // namespace
} // namespace connector::security::v1
