#include "vendra/python/Outlet.h"

namespace vendra::python {

bool Outlet::tryWrite(rqe::Stream stream, std::string_view text)
{
    const std::unique_lock lock(mutex_, std::try_to_lock);
    return lock && isOpen() && (!sink_ || sink_->tryWrite(stream, text));
}

bool Outlet::write(rqe::Stream stream, std::string_view text)
{
    const std::lock_guard lock(mutex_);
    if (!isOpen())
        return false;
    if (sink_)
        sink_->write(stream, text);
    return true;
}

std::optional<std::string> Outlet::readLine(std::chrono::milliseconds patience)
{
    const std::unique_lock lock(reading_, patience);
    if (!lock)
        return std::nullopt;
    if (!isOpen() || !sink_)
        return "";
    return sink_->readLine(patience);
}

void Outlet::stopReading()
{
    const std::lock_guard lock(reading_);
    if (isOpen() && sink_)
        sink_->stopReading();
}

void Outlet::close()
{
    const std::scoped_lock lock(reading_, mutex_);
    open_.store(false, std::memory_order_release);
}

} // namespace vendra::python
