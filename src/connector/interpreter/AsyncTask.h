#pragma once

#include <atomic>
#include <exception>
#include <memory>
#include <string>

#include <Poco/JSON/Object.h>
#include <boost/smart_ptr/shared_ptr.hpp>

#include "connector/interpreter/EngineTask.h"
#include "connector/interpreter/Evaluation.h"
#include "connector/interpreter/KeptAnswers.h"

namespace connector::interpreter::v1 {

/// What the service keeps of an evaluation. Its task may outlive it.
struct KeptEvaluation
{
    std::shared_ptr<Evaluation> evaluation;
    std::string title; ///< the code's beginning
    std::string httpSession;
    engine_tasks::Client client; ///< who started it
    std::atomic<rqe::TaskId> task{0};
};

/// Runs the code of an evaluation and tells it how that ended.
class AsyncTask final : public rqe::Task
{
public:
    static constexpr std::size_t kMaxValueBytes = 1u << 20; ///< what takes more is kept to be fetched

    /// `answers` keeps what does not fit into a message. `keep` lives as long as the task.
    AsyncTask(std::shared_ptr<KeptEvaluation> kept, std::unique_ptr<Eval> request, boost::shared_ptr<rqe::RQE> engine,
              std::shared_ptr<KeptAnswers> answers, std::shared_ptr<void> keep)
        : kept_(std::move(kept)), request_(std::move(request)), engine_(std::move(engine)),
          answers_(std::move(answers)), keep_(std::move(keep))
    {}

    const std::string& client() const noexcept override { return kept_->client.name; }
    std::string about() const override { return aboutWork(kept_->client, kept_->title); }
    void run(rqe::Interpreter& interpreter) override;
    void finish() noexcept override { end(failure_); }
    void abandon(std::exception_ptr reason) noexcept override { end(faultOf(reason)); }

private:
    void end(const std::exception_ptr& failure) noexcept;
    std::string resultText();

    const std::shared_ptr<KeptEvaluation> kept_;
    const std::unique_ptr<Eval> request_;
    const boost::shared_ptr<rqe::RQE> engine_;
    const std::shared_ptr<KeptAnswers> answers_;
    std::shared_ptr<void> keep_;
    EvalResponse response_;
    std::exception_ptr failure_;
};

/// A failure as a client sees it: code, message and details.
Poco::JSON::Object::Ptr faultMembers(const std::exception_ptr& failure);
/// The event of an evaluation that failed, as JSON without its number.
std::string failureText(const std::exception_ptr& failure);

} // namespace connector::interpreter::v1
