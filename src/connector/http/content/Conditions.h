#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "connector/Export.h"
#include "connector/http/HttpMessage.h"
#include "connector/http/content/FoundContent.h"

namespace connector::http::content {

/// What tells one state of a representation from another.
struct Validators
{
    std::string entityTag;     ///< strong, with its quotes
    std::int64_t modified = 0; ///< seconds since 1970; not in the future
};

enum class Verdict
{
    proceed,
    notModified, ///< 304
    failed       ///< 412
};

/// The tag is of inode, size, time of change and coding; the device is left out, as its number changes when it is
/// mounted again.
CONNECTOR_API Validators validatorsOf(const OpenFile& file, Coding coding, std::int64_t now);
/// If-Match, If-Unmodified-Since, If-None-Match and If-Modified-Since of a GET or HEAD request, in the order of
/// RFC 9110 §13.2.2. Dates that cannot be read are as good as not there.
CONNECTOR_API Verdict checkConditions(const Headers& headers, const Validators& validators, std::int64_t now);
/// Whether Range may be looked at: there is no If-Range, or it names this very representation.
CONNECTOR_API bool rangeApplies(const Headers& headers, const Validators& validators, std::int64_t now);

} // namespace connector::http::content
