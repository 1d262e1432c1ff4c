#include "connector/bayeux/ChannelName.h"

namespace connector::bayeux {

namespace {

bool isSegmentByte(char byte) noexcept
{
    return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || (byte >= '0' && byte <= '9') ||
           (byte != '\0' && std::string_view("-_!~()$@").find(byte) != std::string_view::npos);
}

bool isBelow(std::string_view name, std::string_view first) noexcept
{
    return name.starts_with(first) && (name.size() == first.size() || name[first.size()] == '/');
}

} // namespace

bool isChannelName(std::string_view name) noexcept
{
    if (name.size() < 2 || name.size() > kMaxChannelBytes || name.front() != '/' || name.back() == '/')
        return false;
    for (std::size_t i = 1; i < name.size(); ++i) {
        if (name[i] == '/' ? name[i - 1] == '/' : !isSegmentByte(name[i]))
            return false;
    }
    return true;
}

bool isPattern(std::string_view name) noexcept
{
    if (name.size() > kMaxChannelBytes)
        return false;
    if (name.ends_with("/**"))
        name.remove_suffix(3);
    else if (name.ends_with("/*"))
        name.remove_suffix(2);
    else
        return false;
    return name.empty() || isChannelName(name);
}

bool isMetaChannel(std::string_view name) noexcept { return isBelow(name, "/meta"); }

bool isServiceChannel(std::string_view name) noexcept { return isBelow(name, "/service"); }

std::vector<std::string> patternsOf(std::string_view channel)
{
    std::vector<std::string> patterns;
    const bool reserved = isMetaChannel(channel) || isServiceChannel(channel);
    auto slash = channel.rfind('/');
    std::string parent(channel.substr(0, slash));
    if (!parent.empty() || !reserved)
        patterns.push_back(parent + "/*");
    for (;;) {
        if (!parent.empty() || !reserved)
            patterns.push_back(parent + "/**");
        if (parent.empty())
            return patterns;
        parent.resize(parent.rfind('/'));
    }
}

bool covers(std::string_view name, std::string_view channel)
{
    if (name == channel)
        return true;
    const bool deep = name.ends_with("/**");
    if (!deep && !name.ends_with("/*"))
        return false;
    const auto parent = name.substr(0, name.size() - (deep ? 3 : 2));
    if (parent.empty() && (isMetaChannel(channel) || isServiceChannel(channel)))
        return false;
    if (channel.size() <= parent.size() + 1 || !channel.starts_with(parent) || channel[parent.size()] != '/')
        return false;
    return deep || channel.find('/', parent.size() + 1) == std::string_view::npos;
}

} // namespace connector::bayeux
