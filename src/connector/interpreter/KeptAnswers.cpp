#include "connector/interpreter/KeptAnswers.h"

#include <algorithm>
#include <utility>

#include "connector/common/Secret.h"
#include "connector/core/ServiceFault.h"
#include "connector/json/JsonText.h"
#include "platform/fl/i18n.h"

namespace connector::interpreter::v1 {
namespace {

constexpr std::size_t kIdBytes = 16;

} // namespace

std::string KeptAnswers::keep(std::shared_ptr<const Message> answer, std::uint64_t bytes, std::string httpSession)
{
    if (bytes > kMaxBytes)
        throw ServiceFault("tooLarge", "The answer takes " + std::to_string(bytes) + " bytes, at most " +
                                           std::to_string(kMaxBytes) + " are kept.");
    auto id = common::randomHex(kIdBytes);
    std::deque<Kept> dropped; // their end is not for the lock
    std::lock_guard lock(mutex_);
    dropped = takeOld(bytes);
    bytes_ += bytes;
    kept_.push_back({id, std::move(answer), bytes, std::move(httpSession), Clock::now()});
    return id;
}

std::deque<KeptAnswers::Kept> KeptAnswers::takeOld(std::uint64_t more)
{
    std::deque<Kept> taken;
    const auto now = Clock::now();
    while (!kept_.empty() &&
           (kept_.size() >= kMaxAnswers || bytes_ + more > kMaxBytes || now - kept_.front().since >= kKeepTime)) {
        bytes_ -= kept_.front().bytes;
        taken.push_back(std::move(kept_.front()));
        kept_.pop_front();
    }
    return taken;
}

std::shared_ptr<const Message> KeptAnswers::find(const std::string& id)
{
    std::lock_guard lock(mutex_);
    const auto found = std::find_if(kept_.begin(), kept_.end(), [&](const Kept& kept) { return kept.id == id; });
    if (found == kept_.end() || Clock::now() - found->since >= kKeepTime)
        throw ServiceFault("notFound", "There is no answer \"" + id + "\", or none any more.");
    return found->answer;
}

void KeptAnswers::sessionEnded(const std::string& httpSession)
{
    std::deque<Kept> dropped;
    std::lock_guard lock(mutex_);
    for (auto& kept : kept_) {
        if (kept.httpSession != httpSession)
            continue;
        bytes_ -= kept.bytes;
        dropped.push_back(std::exchange(kept, {}));
    }
    std::erase_if(kept_, [](const Kept& kept) { return !kept.answer; });
}

std::uint64_t leastBytes(const matrix::ArrayPtr& value)
{
    if (!value)
        return 0;
    return std::uint64_t{value->get_number_of_elements()} * (value->is_char() ? 1 : 2);
}

bool leaveOutLarge(Poco::JSON::Object& members, const std::string& id)
{
    bool took = false;
    for (const char* name : {"value", "results"}) {
        if (!members.has(name) || json::write(members.get(name)).size() <= kPartBytes)
            continue;
        members.set(name, Poco::Dynamic::Var());
        took = true;
    }
    if (const auto output = members.optValue<std::string>("output", {}); output.size() > kPartBytes) {
        members.set("output", fl::i18n::toValidUtf8(output.substr(0, kPartBytes)));
        members.set("omittedBytes", members.optValue<std::int64_t>("omittedBytes", 0) +
                                        static_cast<std::int64_t>(output.size() - kPartBytes));
    }
    members.set("answer", id);
    return took;
}

} // namespace connector::interpreter::v1
