#include "platform/us/detail/Report.h"

#include "platform/fl/diagnostic_logger.h"

namespace us::detail {

void report(std::string_view text)
{
    static const fl::log::diagnostic_logger logger("us");
    logger.log(fl::log::level::kWarning, text);
}

} // namespace us::detail
