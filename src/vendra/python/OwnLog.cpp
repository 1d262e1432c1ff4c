#include "vendra/python/OwnLog.h"

#include <iostream>

namespace vendra::python {

OwnLog::OwnLog(const Descriptors& descriptors) : descriptors_(descriptors), former_(std::clog.rdbuf(this)) {}

OwnLog::~OwnLog()
{
    if (std::clog.rdbuf() == this)
        std::clog.rdbuf(former_);
}

std::streamsize OwnLog::xsputn(const char* text, std::streamsize size)
{
    descriptors_.writeOwn(rqe::Stream::error, {text, static_cast<std::size_t>(size)});
    return size;
}

OwnLog::int_type OwnLog::overflow(int_type character)
{
    if (traits_type::eq_int_type(character, traits_type::eof()))
        return traits_type::not_eof(character);
    const char byte = traits_type::to_char_type(character);
    xsputn(&byte, 1);
    return character;
}

} // namespace vendra::python
