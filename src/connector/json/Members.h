#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "connector/json/JsonFields.h"

namespace connector::json {

/// The members of one object, as a decoder reads them. Whoever made it refuses afterwards what nobody asked for: a
/// misspelt member is told, not ignored. Readers are those of JsonFields.h. The object must outlive this. One thread.
class CONNECTOR_API Members
{
public:
    explicit Members(const Object& object) : object_(object) {}
    Members(const Members&) = delete;
    Members& operator=(const Members&) = delete;

    std::string requireString(const std::string& name);
    std::int64_t requireInteger(const std::string& name, std::int64_t minimum = kMinInteger,
                                std::int64_t maximum = kMaxInteger);
    Object::Ptr requireObject(const std::string& name);
    Array::Ptr requireArray(const std::string& name);
    std::vector<std::string> requireStrings(const std::string& name);
    Var requireValue(const std::string& name);

    std::string optionalString(const std::string& name, std::string fallback = {});
    std::int64_t optionalInteger(const std::string& name, std::int64_t fallback, std::int64_t minimum = kMinInteger,
                                 std::int64_t maximum = kMaxInteger);
    bool optionalBool(const std::string& name, bool fallback);
    Object::Ptr optionalObject(const std::string& name);
    Array::Ptr optionalArray(const std::string& name);
    std::vector<std::string> optionalStrings(const std::string& name);

    /// Whether there is a value, and not null.
    bool has(const std::string& name);
    /// For a member that somebody else reads, or that may be there without a meaning.
    void allow(const std::string& name) { read(name); }
    /// Throws JsonError naming a member that was not asked for; null ones count.
    void refuseOthers() const;

private:
    const Object& read(const std::string& name);

    const Object& object_;
    std::vector<std::string> read_;
};

} // namespace connector::json
