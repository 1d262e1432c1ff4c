#pragma once

#include "connector/http/content/Coding.h"
#include "connector/http/content/ContentType.h"
#include "connector/http/content/OpenBeneath.h"

namespace connector::http::content {

/// What a path leads to.
struct FoundContent
{
    enum class Kind
    {
        nothing,
        folder, ///< and the path does not end with '/'
        file
    };
    Kind kind = Kind::nothing;
    bool userFiles = false; ///< of the root that covers the path, also when nothing is there

    // Of a file:
    OpenFile file; ///< the representation to send
    Coding coding = Coding::identity;
    const ContentType* type = nullptr; ///< without the coding; never null for a file
};

} // namespace connector::http::content
