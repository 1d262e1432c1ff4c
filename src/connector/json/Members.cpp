#include "connector/json/Members.h"

#include <algorithm>

namespace connector::json {

const Object& Members::read(const std::string& name)
{
    read_.push_back(name);
    return object_;
}

std::string Members::requireString(const std::string& name) { return json::requireString(read(name), name); }

std::int64_t Members::requireInteger(const std::string& name, std::int64_t minimum, std::int64_t maximum)
{
    return json::requireInteger(read(name), name, minimum, maximum);
}

Object::Ptr Members::requireObject(const std::string& name) { return json::requireObject(read(name), name); }

Array::Ptr Members::requireArray(const std::string& name) { return json::requireArray(read(name), name); }

std::vector<std::string> Members::requireStrings(const std::string& name)
{
    return json::requireStrings(read(name), name);
}

Var Members::requireValue(const std::string& name) { return json::requireValue(read(name), name); }

std::string Members::optionalString(const std::string& name, std::string fallback)
{
    return json::optionalString(read(name), name, std::move(fallback));
}

std::int64_t Members::optionalInteger(const std::string& name, std::int64_t fallback, std::int64_t minimum,
                                      std::int64_t maximum)
{
    return json::optionalInteger(read(name), name, fallback, minimum, maximum);
}

bool Members::optionalBool(const std::string& name, bool fallback)
{
    return json::optionalBool(read(name), name, fallback);
}

Object::Ptr Members::optionalObject(const std::string& name) { return json::optionalObject(read(name), name); }

Array::Ptr Members::optionalArray(const std::string& name) { return json::optionalArray(read(name), name); }

std::vector<std::string> Members::optionalStrings(const std::string& name)
{
    return json::optionalStrings(read(name), name);
}

bool Members::has(const std::string& name) { return !read(name).isNull(name); }

void Members::refuseOthers() const
{
    for (const auto& [name, value] : object_)
        if (std::find(read_.begin(), read_.end(), name) == read_.end())
            throw JsonError(name + ": there is no such member here");
}

} // namespace connector::json
