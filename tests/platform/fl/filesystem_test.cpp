#include "platform/fl/filesystem.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>

namespace fl::filesystem {
namespace {

/// Sets or removes a variable of the environment for a scope.
class Environment
{
public:
    Environment(const char* name, const char* value) : name_(name)
    {
        if (const char* before = std::getenv(name))
            before_ = before;
        set(value);
    }
    ~Environment() { set(before_ ? before_->c_str() : nullptr); }
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;

private:
    void set(const char* value) { value != nullptr ? setenv(name_, value, 1) : unsetenv(name_); }

    const char* name_;
    std::optional<std::string> before_;
};

TEST(Filesystem, PathsAreJoinedWithOneSeparator)
{
    const struct
    {
        const wchar_t *base, *piece, *joined;
    } cases[] = {
        {L"", L"", L""},
        {L"", L"bin", L"bin"},
        {L"", L"/bin", L"bin"},
        {L"/opt", L"", L"/opt"},
        {L"/opt", L"/", L"/opt"},
        {L"/opt", L"bin", L"/opt/bin"},
        {L"/opt/", L"bin", L"/opt/bin"},
        {L"/opt//", L"//bin", L"/opt/bin"},
        {L"/opt", L"/etc/passwd", L"/opt/etc/passwd"},
        {L"/", L"bin", L"/bin"},
        {L"//", L"/bin", L"/bin"},
        {L"/opt", L"bin/", L"/opt/bin/"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(detail::concatenate_pathname(c.base, c.piece), c.joined) << c.base << L" + " << c.piece;
}

TEST(Filesystem, NativeFormHasNoSpareSeparators)
{
    const std::pair<const wchar_t*, const wchar_t*> cases[] = {
        {L"", L""},
        {L"/", L"/"},
        {L"///", L"/"},
        {L"/opt/", L"/opt"},
        {L"a//b///c", L"a/b/c"},
        {L"//opt//x//", L"/opt/x"},
        {L"a\\b", L"a\\b"},
    };
    for (const auto& [path, native] : cases)
        EXPECT_EQ(detail::make_native_form(path), native) << path;
}

TEST(Filesystem, PathsConvertBothWays)
{
    const wpath path = L"/tmp/\u00E9/\U0001F600.txt";
    EXPECT_EQ(toNative(path).native(), "/tmp/\xC3\xA9/\xF0\x9F\x98\x80.txt");
    EXPECT_EQ(fromNative(toNative(path)), path);
    EXPECT_EQ(fromNative("a\xF0\x9F\x98/\xED\xA0\x80"), L"a\uFFFD/\uFFFD\uFFFD\uFFFD");
    EXPECT_EQ(toNative({L'a', wchar_t{0xD83D}, wchar_t{0x110000}, wchar_t{-1}}).native(),
              "a\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(Filesystem, TheEnvironmentNamesTheInstallPath)
{
    const std::pair<const char*, const wchar_t*> cases[] = {
        {"/opt/gr\xC3\xBC\xC3\x9F", L"/opt/gr\u00FC\u00DF"},
        {"/opt//vendra/", L"/opt/vendra"},
        {"/", L"/"},
    };
    for (const auto& [value, path] : cases) {
        const Environment root("VENDRA_ROOT", value);
        EXPECT_EQ(get_install_path(), path);
    }
}

TEST(Filesystem, WithoutTheEnvironmentTheLibraryTells)
{
    for (const char* value : {static_cast<const char*>(nullptr), ""}) {
        const Environment root("VENDRA_ROOT", value);
        EXPECT_EQ(toNative(get_install_path()), std::filesystem::canonical(INSTALL_ROOT));
    }
}

} // namespace
} // namespace fl::filesystem
