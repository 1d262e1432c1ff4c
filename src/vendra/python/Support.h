#pragma once

#include <array>
#include <cstddef>

#include "vendra/python/Object.h"

#include <marshal.h>

namespace vendra::python {

inline constexpr std::size_t kSupportFiles = 12;

/// A file of the language, compiled when the host was built and marshalled.
struct CompiledText
{
    const unsigned char* bytes;
    std::size_t size;
};

/// The files of support/, part of the executable. They run one after the other in one namespace.
extern const std::array<CompiledText, kSupportFiles> kSupport;

/// The part of the module `connector` that is written in the language itself.
extern const CompiledText kBusSupport;

/// Where the interpreter's dictionary has the names of support/.
inline constexpr const char* kSupportName = "vendra.support";

/// Which version of the language they were compiled by (its "magic number").
extern const long kSupportMagic;

/// The code object, to be run. ErrorSet when the text is of another version of the language.
inline Ref loadCompiled(const CompiledText& text)
{
    return Ref::own(
        PyMarshal_ReadObjectFromString(reinterpret_cast<const char*>(text.bytes), static_cast<Py_ssize_t>(text.size)));
}

} // namespace vendra::python
