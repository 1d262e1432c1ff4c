#include "connector/http/engine/Upload.h"

namespace connector::http::engine {

std::optional<Refused> Upload::append(std::string_view content)
{
    try {
        if (!file_)
            file_ = std::make_shared<SpoolFile>(core_);
        if (file_->size() + content.size() > maxBytes_)
            return Refused{413, "The request body is too large."};
        file_->append(content);
        return std::nullopt;
    } catch (const HttpFault& fault) {
        return Refused{fault.status(), fault.what()};
    }
}

} // namespace connector::http::engine
