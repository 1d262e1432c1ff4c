#include "vendra/python/BusInbox.h"

#include "platform/rqe/ProcessSession.h"

namespace vendra::python {

namespace {

/// Then others have their turn at the interpreter.
constexpr int kMostAtOnce = 100;

} // namespace

class BusInbox::Drain final : public rqe::Task
{
public:
    explicit Drain(std::shared_ptr<BusInbox> inbox) : inbox_(std::move(inbox)) {}
    void run(rqe::Interpreter&) override
    {
        try {
            inbox_->drain();
        } catch (const ErrorSet&) {
            // An interrupt: it ends what runs, not what waits.
            PyErr_Print();
        }
    }
    void finish() noexcept override { inbox_->postIfLeft(); }
    void abandon(std::exception_ptr) noexcept override {}

private:
    std::shared_ptr<BusInbox> inbox_;
};

void BusInbox::receive(const std::string& channel, const std::string& json)
{
    {
        std::lock_guard lock(mutex_);
        if (closed_)
            return;
        const auto size = channel.size() + json.size();
        if (waiting_.size() >= kMaxWaiting || waitingBytes_ + size > kMaxWaitingBytes) {
            ++lost_;
            return;
        }
        waitingBytes_ += size;
        waiting_.emplace_back(channel, json);
        if (std::exchange(posted_, true))
            return;
    }
    post();
}

/// With the language's lock.
void BusInbox::drain()
{
    const auto self = shared_from_this();
    {
        std::lock_guard lock(mutex_);
        posted_ = false;
    }
    for (int count = 0; count < kMostAtOnce; ++count) {
        Message message;
        std::size_t lost = 0;
        {
            std::lock_guard lock(mutex_);
            if (closed_ || waiting_.empty())
                return;
            message = std::move(waiting_.front());
            waiting_.pop_front();
            waitingBytes_ -= message.first.size() + message.second.size();
            lost = std::exchange(lost_, 0);
        }
        if (lost > 0)
            PySys_WriteStderr("connector: %zu messages were lost before one of %.200s\n", lost, message.first.c_str());
        const Ref channel = makeText(message.first);
        const Ref json = makeText(message.second);
        const Ref target = Ref::share(deliver_.get());
        const Ref result = Ref::own(PyObject_CallFunctionObjArgs(target.get(), channel.get(), json.get(), nullptr));
    }
}

void BusInbox::close()
{
    {
        std::lock_guard lock(mutex_);
        closed_ = true;
        waiting_.clear();
        waitingBytes_ = 0;
    }
    deliver_ = Ref();
}

void BusInbox::postIfLeft()
{
    {
        std::lock_guard lock(mutex_);
        if (closed_ || waiting_.empty() || std::exchange(posted_, true))
            return;
    }
    post();
}

void BusInbox::post()
{
    if (const auto engine = rqe::Factory::getCurrentLocalRQE()) {
        try {
            engine->post(std::make_unique<Drain>(shared_from_this()));
            return;
        } catch (const std::exception&) {
            // Full: the next message tries again.
        }
    }
    std::lock_guard lock(mutex_);
    posted_ = false;
}

} // namespace vendra::python
