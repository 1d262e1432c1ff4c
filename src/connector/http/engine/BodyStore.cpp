#include "connector/http/engine/BodyStore.h"

#include <algorithm>

namespace connector::http::engine {

void BodyStore::begin(std::optional<std::uint64_t> announced)
{
    drop();
    announced_ = announced;
    asked_ = false;
    hold_ = announced == 0 ? nullptr : std::make_shared<BodyHold>(core_);
}

std::optional<Refused> BodyStore::ask()
{
    asked_ = true;
    return put({});
}

std::optional<Refused> BodyStore::append(std::string_view content)
{
    return content.empty() ? std::nullopt : put(content);
}

std::optional<Refused> BodyStore::put(std::string_view content)
{
    try {
        if (!file_ && isForFile(content.size()))
            moveToFile();
        if (file_)
            file_->append(content);
        else if (!keep(content))
            return Refused{503, "Too many large requests at a time."};
        return std::nullopt;
    } catch (const HttpFault& fault) {
        return Refused{fault.status(), fault.what()};
    }
}

bool BodyStore::isForFile(std::size_t added) const noexcept
{
    const std::uint64_t known = text_.size() + added;
    return asked_ && std::max(announced_.value_or(0), known) > core_->settings.memoryBodyBytes;
}

void BodyStore::moveToFile()
{
    auto file = std::make_shared<SpoolFile>(core_);
    file->append(text_);
    file_ = std::move(file);
    text_ = {};
    hold_->release();
}

/// False when all bodies together are too large.
bool BodyStore::keep(std::string_view content)
{
    // Room follows what has arrived, not what was announced; the last step is exact.
    const std::size_t needed = text_.size() + content.size();
    if (text_.capacity() < needed && announced_)
        text_.reserve(static_cast<std::size_t>(
            std::clamp<std::uint64_t>(*announced_, needed, std::max(needed, text_.capacity() * 2))));
    text_.append(content);
    return hold_->growTo(text_.size());
}

ReceivedBody BodyStore::take()
{
    const auto bytes = size();
    if (!file_)
        return {takeText(), nullptr, bytes};
    const auto file = std::exchange(file_, nullptr);
    return {{}, std::shared_ptr<const common::FileDescriptor>(file, &file->descriptor()), bytes};
}

void BodyStore::drop()
{
    text_ = {};
    file_.reset();
}

} // namespace connector::http::engine
