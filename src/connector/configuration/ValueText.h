#pragma once

#include <string>

#include "connector/configuration/Configuration.h"

namespace connector::configuration {

/// A value of the key's type from text. Throws ConfigurationError naming key and text.
Value valueFromText(const Key& key, const std::string& text);

/// The value as the key's type, within its bounds: an integer becomes a double where the key is one. Throws
/// ConfigurationError naming the key.
Value checkedValue(const Key& key, Value value);

/// As valueFromText reads it; list elements are joined by ", ".
std::string toText(const Value& value);

/// "text", "an integer" …
const char* typeName(const Value& value) noexcept;

/// Without spaces, tabs and carriage returns around it.
std::string trimmed(const std::string& text);

} // namespace connector::configuration
