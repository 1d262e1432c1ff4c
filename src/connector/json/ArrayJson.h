#pragma once

#include <Poco/Dynamic/Var.h>

#include "connector/Export.h"
#include "platform/matrix/Array.h"

namespace connector::json {

/// The JSON form of a host array, lossless in both directions (docs/protocol.md has the table):
///   null                 0-by-0 double           "text"    char row of valid UTF-16 ("" is 0-by-0)
///   true / false         logical scalar          5         int64 scalar within ±2^53
///   5.0                  finite double scalar    [a, b]    1-by-n cell (n ≥ 0)
///   {"a": …}             1-by-1 struct without a field called "vx"
/// and for all else {"vx": class, "size": [sizes], "data": [elements in column-major order]}, where integers beyond
/// ±2^53 are decimal strings, NaN, Infinity and -Infinity are strings, char data is an array of UTF-16 units, logical
/// data are booleans; a struct carries "fields": [names] and its data holds one array of field values per element. A
/// 1-by-1 struct of more than kMaxOrderedMembers fields takes this form too, so that their order stays. A typed value
/// is
/// {"vx": kind, "value": JSON form of what tells it}.
/// Reading is kinder: a plain integer beyond ±2^53 is an int64 scalar, or uint64 where only that holds it; data of
/// numeric classes may be written with or without a fraction as long as the value is one of the class.
/// Throws JsonError naming what was wrong and where. Threads: any.
CONNECTOR_API Poco::Dynamic::Var toJson(const vxArray& array);
CONNECTOR_API matrix::ArrayPtr fromJson(const Poco::Dynamic::Var& value);

} // namespace connector::json
