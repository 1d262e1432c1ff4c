#pragma once

#include <filesystem>

namespace vendra {

/// The user's home: HOME, else what the user data base says, else empty.
std::filesystem::path homeFolder();

} // namespace vendra
