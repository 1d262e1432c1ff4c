#pragma once

#include <filesystem>
#include <string>

#include "platform/Export.h"

namespace fl::filesystem {

/// A file-system path in wide characters (UTF-32 here).
using wpath = std::wstring;

/// The installation root: the environment's VENDRA_ROOT (UTF-8) if set and not empty, else the parent of the folder
/// that the platform library was loaded from (when that folder is called "lib"), else empty. In native form: no
/// trailing separator; "/" stays as it is.
VENDRA_PLATFORM_API wpath get_install_path();

namespace detail {

/// `base` and `piece` with one separator between them; an empty base yields the piece, an empty piece the base. A piece
/// never escapes to the root by starting with a separator: its leading separators are dropped, whatever the base.
VENDRA_PLATFORM_API wpath concatenate_pathname(const wpath& base, const wpath& piece);

/// The platform's own separators (here "/" only), duplicates and trailing ones removed; the root stays "/".
VENDRA_PLATFORM_API wpath make_native_form(const wpath& path);

} // namespace detail

/// The same path for the standard library; characters outside Unicode become U+FFFD.
VENDRA_PLATFORM_API std::filesystem::path toNative(const wpath& path);
/// From bytes of UTF-8.
VENDRA_PLATFORM_API wpath fromNative(const std::filesystem::path& path);

} // namespace fl::filesystem
