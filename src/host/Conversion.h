#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/matrix/Array.h"

/// Host arrays to strings and back, as the builtins share it. Strings are UTF-8.
namespace host {

/// An argument that must be text. Anything else, and a missing one, is reported on standard error and read as "".
std::string readName(const vxArray* argument);

/// The argument's text, without a check of its class.
std::string readString(const vxArray* argument);

/// The texts of a cell array's elements, in index order. Throws std::length_error "vector<T> too long" for a count that
/// no vector holds.
std::vector<std::string> readStringList(const vxArray* argument);

/// A char array, owned by the host from then on.
vxArray* toHost(std::string_view text);

} // namespace host
