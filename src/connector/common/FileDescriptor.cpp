#include "connector/common/FileDescriptor.h"

#include <unistd.h>

namespace connector::common {

FileDescriptor::~FileDescriptor()
{
    if (number_ >= 0)
        ::close(number_);
}

} // namespace connector::common
