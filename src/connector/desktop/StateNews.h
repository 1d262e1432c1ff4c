#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include <boost/smart_ptr/shared_ptr.hpp>

#include "connector/common/TickManager.h"
#include "connector/desktop/VariableWatch.h"
#include "platform/rqe/RQE.h"

namespace connector::desktop::v1 {

/// Tells the subscribers of the bus where the interpreter is and whether it is busy: on the channels
/// /interpreter/folder and /interpreter/state. Does next to nothing while there are none. Threads: any.
class StateNews final : public rqe::EngineListener, public std::enable_shared_from_this<StateNews>
{
public:
    static constexpr const char* kFolderChannel = "/interpreter/folder";
    static constexpr const char* kStateChannel = "/interpreter/state";
    /// How often the state is looked at while work runs. Work that is shorter is nobody's news.
    static constexpr std::chrono::milliseconds kTick{50};

    StateNews(boost::shared_ptr<rqe::RQE> engine, std::shared_ptr<const VariableWatch> watch)
        : engine_(std::move(engine)), watch_(std::move(watch))
    {}

    void start();
    void stop();

    /// Somebody lists the variables: who subscribed while work ran hears of it, too.
    void listed();

    void workBegins() override;
    void variablesMayHaveChanged() override;
    void folderChanged(const std::string& folder) override;

private:
    /// With the lock; false when somebody does it already, or nobody is to.
    bool wantsTick();
    void tick();
    void sample();
    /// Without the watch's own.
    std::size_t queued() const;

    const boost::shared_ptr<rqe::RQE> engine_;
    const std::shared_ptr<const VariableWatch> watch_;
    std::mutex mutex_;
    bool stopped_ = true;
    bool ticking_ = false;
    std::uint64_t work_ = 0;     ///< counts what began
    std::uint64_t lastWork_ = 0; ///< at the tick before
    bool toldBusy_ = false;
    bool tellAgain_ = false; ///< to somebody who was not told
    std::size_t toldQueued_ = 0;
    common::TickManager::Subscription tick_;
};

} // namespace connector::desktop::v1
