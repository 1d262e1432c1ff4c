#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "connector/Export.h"
#include "connector/http/ServerSettings.h"

namespace connector::http {

/// The key and self-signed certificate of this installation, made at first use: P-256, for the loopback names and
/// addresses and `names`, in `folder`/key.pem and certificate.pem (mode 0600, folder 0700). The certificate is made
/// anew when it soon expires or lacks a name; the key stays. Processes that start at the same time wait for one
/// another. Throws std::runtime_error naming the file.
CONNECTOR_API TlsFiles tlsIdentity(const std::filesystem::path& folder, const std::vector<std::string>& names);

/// ~/.vendra/tls. Throws std::runtime_error without a home.
CONNECTOR_API std::filesystem::path defaultTlsFolder();

/// The SHA-256 of the first certificate's DER form, in hexadecimal. Throws std::runtime_error naming the file.
CONNECTOR_API std::string certificateFingerprint(const std::filesystem::path& certificate);

} // namespace connector::http
