#include <gtest/gtest.h>

#include "connector/http/UrlPath.h"
#include "connector/http/engine/ChunkedBody.h"
#include "connector/http/engine/RequestHead.h"

namespace connector::http::engine {
namespace {

RequestLimits smallLimits()
{
    RequestLimits limits;
    limits.headBytes = 1'000;
    limits.targetBytes = 200;
    limits.fields = 5;
    limits.bodyBytes = 1'000;
    return limits;
}

/// 200 for a head that is taken, 0 for one that is not complete, else the status of the refusal.
unsigned statusOf(const std::string& wire)
{
    RequestHeadReader reader(smallLimits());
    switch (reader.read(wire)) {
    case RequestHeadReader::State::complete:
        return 200;
    case RequestHeadReader::State::needMore:
        return 0;
    default:
        return reader.refused().status;
    }
}

/// The same, one byte at a time.
unsigned statusOfDrops(const std::string& wire)
{
    RequestHeadReader reader(smallLimits());
    for (std::size_t count = 1; count <= wire.size(); ++count) {
        const auto state = reader.read(std::string_view(wire).substr(0, count));
        if (state == RequestHeadReader::State::complete)
            return 200;
        if (state == RequestHeadReader::State::refused)
            return reader.refused().status;
    }
    return 0;
}

std::string withFields(const std::string& fields) { return "POST / HTTP/1.1\r\nHost: a\r\n" + fields + "\r\n"; }

std::string withLine(const std::string& line) { return line + "\r\nHost: a\r\n\r\n"; }

struct WireCase
{
    unsigned status;
    std::string wire;
};

void check(const std::vector<WireCase>& cases)
{
    for (const auto& [status, wire] : cases) {
        EXPECT_EQ(statusOf(wire), status) << wire;
        EXPECT_EQ(statusOfDrops(wire), status) << "byte by byte: " << wire;
    }
}

TEST(RequestHead, takesOnlyExactRequestLines)
{
    check({
        {200, withLine("GET / HTTP/1.1")},
        {200, withLine("GET / HTTP/1.0")},
        {200, "\r\n\r\n" + withLine("GET / HTTP/1.1")},
        {400, "\r\n\r\n\r\n" + withLine("GET / HTTP/1.1")},
        {0, "GET / HTTP/1.1\r\nHost: a\r\n"},
        {400, withLine("GET  / HTTP/1.1")},
        {400, withLine("GET /  HTTP/1.1")},
        {400, withLine(" GET / HTTP/1.1")},
        {400, withLine("GET / HTTP/1.1 ")},
        {400, withLine("GET\t/ HTTP/1.1")},
        {400, withLine("GET /")},
        {400, withLine("GET / http/1.1")},
        {400, withLine("GET / HTTP/1.10")},
        {505, withLine("GET / HTTP/1.2")},
        {505, withLine("PRI * HTTP/2.0")},
        {400, withLine("G(T / HTTP/1.1")},
        {400, withLine(std::string(33, 'G') + " / HTTP/1.1")},
        {501, withLine("CONNECT a:1 HTTP/1.1")},
        {400, "GET / HTTP/1.1\nHost: a\r\n\r\n"},
        {400, "GET / HTTP/1.1\r\nHost: a\n\r\n"},
        {400, "GET / HTTP/1.1\r\r\nHost: a\r\n\r\n"},
        {400, "GET / HTTP/1.1\r\nHost: a\rX: b\r\n\r\n"},
        {400, std::string("GET / HTTP/1.1\r\nHost: a\0b\r\n\r\n", 29)},
        {400, "\x16\x03\x01\x02"},
    });
}

TEST(RequestHead, takesOnlyPlainTargets)
{
    check({
        {200, withLine("GET /a?b?c=/d HTTP/1.1")},
        {200, withLine("OPTIONS * HTTP/1.1")},
        {200, withLine("GET http://A/x HTTP/1.1")},
        {200, withLine("GET http://a HTTP/1.1")},
        {400, withLine("GET http://b/x HTTP/1.1")},
        {400, withLine("GET http://u@a/x HTTP/1.1")},
        {400, withLine("GET ftp://a/x HTTP/1.1")},
        {400, withLine("GET * HTTP/1.1")},
        {400, withLine("GET a HTTP/1.1")},
        {400, withLine("GET /a#b HTTP/1.1")},
        {400, withLine("GET /\xc3\xa4 HTTP/1.1")},
        {400, withLine("GET /../etc/passwd HTTP/1.1")},
        {414, withLine("GET /" + std::string(200, 'a') + " HTTP/1.1")},
        {414, "GET /" + std::string(300, 'a')},
        {414, "GET /" + std::string(300, 'a') + "\x01"},
    });
}

TEST(RequestHead, takesExactlyOneWellFormedHost)
{
    const auto host = [](const std::string& lines) { return "GET / HTTP/1.1\r\n" + lines + "\r\n"; };
    check({
        {200, host("Host: a.b-c:80\r\n")},
        {200, host("host:[::1]:65535\r\n")},
        {200, "GET / HTTP/1.0\r\n\r\n"},
        {400, host("")},
        {400, host("Host: a\r\nHost: a\r\n")},
        {400, "GET / HTTP/1.0\r\nHost: a\r\nHost: b\r\n\r\n"},
        {400, host("Host:\r\n")},
        {400, host("Host: a:\r\n")},
        {400, host("Host: a:65536\r\n")},
        {400, host("Host: a:8o\r\n")},
        {400, host("Host: a/b\r\n")},
        {400, host("Host: a, b\r\n")},
        {400, host("Host: u@a\r\n")},
        {400, host("Host: [::1\r\n")},
    });
}

TEST(RequestHead, refusesWhatTwoReadersCouldFrameDifferently)
{
    check({
        {200, withFields("Content-Length: 10\r\n")},
        {200, withFields("Transfer-Encoding: Chunked\r\n")},
        {400, withFields("Content-Length: 10\r\nContent-Length: 10\r\n")},
        {400, withFields("Content-Length: 10, 10\r\n")},
        {400, withFields("Content-Length: +10\r\n")},
        {400, withFields("Content-Length: -1\r\n")},
        {400, withFields("Content-Length: 0x10\r\n")},
        {400, withFields("Content-Length: 1 0\r\n")},
        {400, withFields("Content-Length:\r\n")},
        {413, withFields("Content-Length: 1001\r\n")},
        {413, withFields("Content-Length: 18446744073709551617\r\n")},
        {400, withFields("Content-Length: 3\r\nTransfer-Encoding: chunked\r\n")},
        {400, withFields("Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n")},
        {400, withFields("Transfer-Encoding: gzip, chunked\r\n")},
        {400, withFields("Transfer-Encoding: identity\r\n")},
        {400, withFields("Transfer-Encoding: \vchunked\r\n")},
        {400, "POST / HTTP/1.0\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n"},
        {400, withFields("Content-Length : 3\r\n")},
        {400, withFields(" Content-Length: 3\r\n")},
        {400, withFields("A: b\r\n folded\r\n")},
        {400, withFields("A\r\n")},
        {400, withFields(": b\r\n")},
        {400, withFields("\xc3\xa4: b\r\n")},
        {200, withFields("A: \xc3\xa4\tb\r\n")},
        {400, withFields("A: b\x7f\r\n")},
    });
}

TEST(RequestHead, refusesWhatItWillNotServe)
{
    check({
        {200, withFields("Expect: 100-Continue\r\nContent-Length: 3\r\n")},
        {417, withFields("Expect: 200-ok\r\n")},
        {413, withFields("Expect: 100-continue\r\nContent-Length: 9999\r\n")},
        {415, withFields("Content-Encoding: gzip\r\n")},
        {200, withFields("Content-Encoding: identity\r\n")},
        {200, withFields("A: 1\r\nB: 1\r\nC: 1\r\nD: 1\r\n")},
        {431, withFields("A: 1\r\nB: 1\r\nC: 1\r\nD: 1\r\nE: 1\r\n")},
        {431, withFields("A: " + std::string(1'000, 'x') + "\r\n")},
        {431, "GET / HTTP/1.1\r\nA: " + std::string(1'000, 'x')},
    });
}

TEST(RequestHead, saysWhatItRead)
{
    const std::string wire = "POST http://LocalHost:81/a%20b/%C3%A4?x=%41&y HTTP/1.1\r\nHost: localhost:81\r\n"
                             "X-A:  two words \t\r\nExpect: 100-continue\r\nContent-Length: 007\r\n\r\n";
    RequestHeadReader reader;
    ASSERT_EQ(reader.read(wire + "GET /next"), RequestHeadReader::State::complete);
    const RequestHead& head = reader.head();
    EXPECT_EQ(reader.headBytes(), wire.size());
    EXPECT_EQ(head.method, "POST");
    EXPECT_EQ(head.target, "/a%20b/%C3%A4?x=%41&y");
    EXPECT_EQ(head.path, "/a b/\xc3\xa4");
    EXPECT_EQ(head.query, "x=%41&y");
    EXPECT_EQ(head.authority, "localhost:81");
    EXPECT_EQ(head.headers.get("x-a"), "two words");
    EXPECT_EQ(head.contentLength, 7u);
    EXPECT_TRUE(head.expectsContinue);
    EXPECT_TRUE(head.keepAlive);
}

TEST(RequestHead, keepsConnectionsAsAsked)
{
    const auto keeps = [](const std::string& wire) {
        RequestHeadReader reader;
        EXPECT_EQ(reader.read(wire), RequestHeadReader::State::complete) << wire;
        return reader.head().keepAlive;
    };
    EXPECT_TRUE(keeps(withFields("")));
    EXPECT_FALSE(keeps(withFields("Connection: x, Close\r\n")));
    EXPECT_FALSE(keeps(withFields("Connection: keep-alive\r\nConnection: close\r\n")));
    EXPECT_FALSE(keeps("GET / HTTP/1.0\r\n\r\n"));
    EXPECT_TRUE(keeps("GET / HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n"));
}

TEST(UrlPath, decodesOnceAndRefusesAmbiguousPaths)
{
    const std::vector<std::pair<std::string, std::string>> taken{
        {"/", "/"},
        {"/a/b/", "/a/b/"},
        {"/%41%2541", "/A%41"},
        {"/a+b", "/a+b"},
        {"/%e2%82%ac", "/\xe2\x82\xac"},
        {"/.hidden/..x", "/.hidden/..x"},
        {"/console", "/console"},
    };
    for (const auto& [raw, expected] : taken) {
        std::string decoded;
        EXPECT_EQ(decodePath(raw, decoded), nullptr) << raw;
        EXPECT_EQ(decoded, expected);
    }
    for (const std::string raw :
         {"",        "a",        "/%",        "/%4",  "/%4g",  "/%00",    "/%2f",       "/a%2Fb", "/%5c",
          "/a\\b",   "/%0a",     "/%7f",      "/a:b", "/%3a",  "/%c0%af", "/%ed%a0%80", "/%ff",   "/%f4%90%80%80",
          "/%e2%82", "//a",      "/a//b",     "/.",   "/a/..", "/../a",   "/%2e%2e/a",  "/a./b",  "/a%20",
          "/con",    "/NUL.txt", "/a/lpt1.x", "/Aux "}) {
        std::string decoded;
        EXPECT_NE(decodePath(raw, decoded), nullptr) << raw;
    }
}

/// The decoded body, or "status" of the refusal, or "more". `step`: bytes given at a time.
std::string decodeChunks(const std::string& wire, std::size_t step, std::string* rest = nullptr)
{
    ChunkedBody reader(100);
    std::string body;
    std::string_view left = wire;
    while (!left.empty()) {
        std::string_view part = left.substr(0, step);
        const auto given = part.size();
        const auto state = reader.read(part, body);
        left.remove_prefix(given - part.size());
        if (state == ChunkedBody::State::refused)
            return std::to_string(reader.refused().status);
        if (state == ChunkedBody::State::complete) {
            if (rest)
                *rest = left;
            return body;
        }
    }
    return "more";
}

TEST(ChunkedBody, decodesExactChunksOnly)
{
    const std::vector<std::pair<std::string, std::string>> cases{
        {"0\r\n\r\n", ""},
        {"3\r\nabc\r\n00A\r\n0123456789\r\n0\r\n\r\n", "abc0123456789"},
        {"3;a=\"b c\"\r\nabc\r\n0;x\r\nTrailer: 1\r\nOther:\r\n\r\n", "abc"},
        {"3\r\nab", "more"},
        {"0\r\n\r", "more"},
        {"3\r\nabcd\r\n", "400"},
        {"3\r\nabcX\n", "400"},
        {"3\nabc\r\n", "400"},
        {"3 \r\nabc\r\n", "400"},
        {"-3\r\nabc\r\n", "400"},
        {"+3\r\nabc\r\n", "400"},
        {"0x3\r\nabc\r\n", "400"},
        {"\r\nabc\r\n", "400"},
        {"ffffffffffffffffff\r\n", "400"},
        {"fffffffffffffff\r\n", "413"},
        {"64\r\n" + std::string(100, 'x') + "\r\n1\r\ny\r\n", "413"},
        {"3;" + std::string(300, 'x') + "\r\nabc\r\n", "400"},
        {"3;a\x01\r\nabc\r\n", "400"},
        {"0\r\nTrailer\r\n\r\n", "400"},
        {"0\r\n" + std::string(9'000, 'x'), "400"},
    };
    for (const auto& [wire, expected] : cases) {
        for (const std::size_t step : {std::size_t{1}, std::size_t{3}, wire.size()})
            EXPECT_EQ(decodeChunks(wire, step), expected) << wire << " in steps of " << step;
    }
    std::string rest;
    decodeChunks("1\r\na\r\n0\r\n\r\nGET /", 100, &rest);
    EXPECT_EQ(rest, "GET /");
}

TEST(ChunkedBody, boundsExtensionsAndTrailersInAll)
{
    std::string extensions;
    for (int i = 0; i < 100; ++i)
        extensions += "1;" + std::string(200, 'x') + "\r\na\r\n";
    EXPECT_EQ(decodeChunks(extensions, 1'000), "400");
    std::string trailers = "0\r\n";
    for (int i = 0; i < 100; ++i)
        trailers += "A: " + std::string(200, 'x') + "\r\n";
    EXPECT_EQ(decodeChunks(trailers, 1'000), "400");
}

} // namespace
} // namespace connector::http::engine
