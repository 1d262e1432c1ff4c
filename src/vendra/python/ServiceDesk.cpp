#include "vendra/python/ServiceDesk.h"

#include "platform/rqe/ProcessSession.h"

namespace vendra::python {

class ServiceDesk::Turn final : public rqe::Task
{
public:
    explicit Turn(std::shared_ptr<ServiceDesk> desk) : desk_(std::move(desk)) {}

    void run(rqe::Interpreter&) override
    {
        call_ = desk_->next();
        if (!call_)
            return;
        try {
            const Ref serve = Ref::share(desk_->serve_.get());
            const Ref channel = makeText(call_->channel());
            const Ref json = makeText(call_->json());
            const Ref session = makeText(call_->session());
            const Ref result =
                Ref::own(PyObject_CallFunctionObjArgs(serve.get(), channel.get(), json.get(), session.get(), nullptr));
            PyObject* const text = PyTuple_GetItem(result.get(), 1); // borrowed
            if (!text)
                throw ErrorSet{};
            first_ = textOf(PyTuple_GET_ITEM(result.get(), 0));
            succeeded_ = text == Py_None;
            if (!succeeded_)
                second_ = textOf(text);
        } catch (const ErrorSet&) {
            // An interrupt: it ends this call, not what waits.
            PyErr_Print();
            first_ = "KeyboardInterrupt";
            second_ = "The service was interrupted";
        }
    }

    void finish() noexcept override
    {
        try {
            if (call_ && succeeded_)
                call_->answer(first_);
            else if (call_)
                call_->fail(first_, second_);
        } catch (const std::exception&) {
            // No memory for an answer: the call says so when it goes, if it can.
        }
        call_.reset();
        desk_->turnEnded();
    }

    void abandon(std::exception_ptr) noexcept override
    {
        call_.reset();
        desk_->turnEnded();
    }

private:
    const std::shared_ptr<ServiceDesk> desk_;
    std::shared_ptr<rqe::ServiceCall> call_;
    bool succeeded_ = false;
    std::string first_;
    std::string second_;
};

bool ServiceDesk::take(std::shared_ptr<rqe::ServiceCall> call)
{
    {
        std::lock_guard lock(mutex_);
        const auto size = call->json().size();
        if (closed_ || waiting_.size() >= kMaxWaiting || waitingBytes_ + size > kMaxWaitingBytes)
            return false;
        waitingBytes_ += size;
        waiting_.push_back(std::move(call));
        if (std::exchange(posted_, true))
            return true;
    }
    if (!post())
        takeAll(); // each answers when it goes
    return true;
}

ServiceDesk::Calls ServiceDesk::close()
{
    {
        std::lock_guard lock(mutex_);
        closed_ = true;
    }
    serve_ = Ref();
    return takeAll();
}

/// Null when nothing waits.
std::shared_ptr<rqe::ServiceCall> ServiceDesk::next()
{
    std::lock_guard lock(mutex_);
    if (waiting_.empty())
        return nullptr;
    auto call = std::move(waiting_.front());
    waiting_.pop_front();
    waitingBytes_ -= call->json().size();
    return call;
}

void ServiceDesk::turnEnded() noexcept
{
    {
        std::lock_guard lock(mutex_);
        posted_ = !waiting_.empty();
        if (!posted_)
            return;
    }
    if (!post())
        takeAll();
}

/// False when the interpreter takes no more.
bool ServiceDesk::post()
{
    try {
        if (const auto engine = rqe::Factory::getCurrentLocalRQE()) {
            engine->post(std::make_unique<Turn>(shared_from_this()));
            return true;
        }
    } catch (const std::exception&) {
        // As without an engine.
    }
    std::lock_guard lock(mutex_);
    posted_ = false;
    return false;
}

ServiceDesk::Calls ServiceDesk::takeAll()
{
    std::lock_guard lock(mutex_);
    waitingBytes_ = 0;
    return std::exchange(waiting_, {});
}

} // namespace vendra::python
