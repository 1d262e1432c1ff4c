#pragma once

#include <filesystem>
#include <string>

namespace vendra {

/// Opens an address in the user's browser: $BROWSER, else xdg-open. Other users of the machine see command lines, so
/// the browser is given a page in `folder`, which only the user can read and which leads on. The page stays until it is
/// written again. Does not wait for the browser. Throws std::runtime_error that says what is missing; it never names
/// the address.
void openInBrowser(const std::string& url, const std::filesystem::path& folder);

} // namespace vendra
