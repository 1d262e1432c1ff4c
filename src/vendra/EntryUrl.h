#pragma once

#include <string>

#include "vendra/Announcement.h"

namespace vendra {

/// A fresh address of the host that lets one browser in, asked of the host itself. A server that speaks TLS has to show
/// the certificate that was announced before anything is sent to it. Blocks, for a few seconds at most. Throws
/// std::runtime_error that says why there is none; it never names the token.
std::string fetchEntryUrl(const Announcement& host);

} // namespace vendra
