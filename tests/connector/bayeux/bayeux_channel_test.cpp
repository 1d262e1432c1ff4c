#include "connector/bayeux/ChannelName.h"

#include <gtest/gtest.h>

namespace connector::bayeux {
namespace {

TEST(BayeuxChannel, namesAndPatterns)
{
    for (const char* name : {"/a", "/a/b", "/A9-_!~()$@/x", "/meta/x", "/service/x"}) {
        EXPECT_TRUE(isChannelName(name)) << name;
        EXPECT_FALSE(isPattern(name)) << name;
    }
    for (const char* name : {"/*", "/**", "/a/*", "/a/b/**"}) {
        EXPECT_FALSE(isChannelName(name)) << name;
        EXPECT_TRUE(isPattern(name)) << name;
    }
    const std::string tooLong = "/" + std::string(kMaxChannelBytes, 'a');
    for (const std::string& name :
         {std::string(), std::string("/"), std::string("//"), std::string("a"), std::string("/a/"),
          std::string("/a//b"), std::string("/a/*/b"), std::string("/a/b*"), std::string("/a/***"),
          std::string("/*/**"), std::string("/\xc3\xa4"), std::string("/a b"), std::string("/a\0b", 4),
          std::string("/a/\xff/*"), std::string("//*"), tooLong, tooLong + "/*"}) {
        EXPECT_FALSE(isChannelName(name)) << name;
        EXPECT_FALSE(isPattern(name)) << name;
    }
}

TEST(BayeuxChannel, coversWhatPatternsOfListsAndNothingElse)
{
    struct Case
    {
        const char* name;
        const char* channel;
        bool covers;
    };
    for (const auto& c :
         {Case{"/a/b", "/a/b", true}, Case{"/a/*", "/a/b", true}, Case{"/a/*", "/a/b/c", false},
          Case{"/a/*", "/a", false}, Case{"/a/**", "/a/b", true}, Case{"/a/**", "/a/b/c", true},
          Case{"/a/**", "/a", false}, Case{"/a/**", "/ab/c", false}, Case{"/*", "/a", true}, Case{"/*", "/a/b", false},
          Case{"/**", "/a/b", true}, Case{"/**", "/meta/x", false}, Case{"/**", "/service/x", false},
          Case{"/*", "/meta", false}, Case{"/**", "/metadata/x", true}, Case{"/service/*", "/service/x", true},
          Case{"/service/**", "/service/x/y", true}}) {
        EXPECT_EQ(covers(c.name, c.channel), c.covers) << c.name << ' ' << c.channel;
        const auto patterns = patternsOf(c.channel);
        const bool listed =
            std::string(c.name) == c.channel || std::find(patterns.begin(), patterns.end(), c.name) != patterns.end();
        EXPECT_EQ(listed, c.covers) << c.name << ' ' << c.channel;
    }
}

} // namespace
} // namespace connector::bayeux
