#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "vendra/python/Outlet.h"

namespace vendra::python {

/// Leads what C code and child processes write to descriptors 1 and 2 to the evaluation that runs. The descriptors
/// belong to the whole process: while an evaluation runs they are the ends of pipes, which a thread empties, and when
/// the host has nothing to do, or runs code of its own, they are what they were before.
///
/// A process that outlives the evaluation which started it keeps its pipe, and the next evaluation gets another one:
/// what it writes later goes to the host's own output. Such pipes are bounded in number; beyond that, evaluations share
/// one. Where no pipe can be made, everything goes to the host's own output.
///
/// Interpreter thread, unless said otherwise.
class Descriptors
{
public:
    Descriptors();
    ~Descriptors();
    Descriptors(const Descriptors&) = delete;
    Descriptors& operator=(const Descriptors&) = delete;

    /// What is written from now on belongs to `outlet`, and what was written before to the host itself.
    void begin(std::shared_ptr<Outlet> outlet);
    /// Whether something may wait to be handed over.
    bool hasMore();
    /// Hands over what was written so far. Waits for the outlet: not with the language's lock.
    void deliver();
    /// The same, and what comes from now on belongs to nobody.
    void finish();
    /// Finishes if there is nothing to hand over and to wait for; else false.
    bool tryFinish();

    /// Whether descriptors 1 and 2 are pipes now. Any thread.
    bool areLed() const noexcept { return led_.load(std::memory_order_relaxed); }
    /// Makes them what they were.
    void giveBack() noexcept;
    /// Writes to the host's own output, whatever descriptors 1 and 2 are now. Any thread.
    void writeOwn(rqe::Stream stream, std::string_view bytes) const noexcept;

    /// In the child that a fork made, before anything else: from then on this does nothing. `keep`: what the child
    /// writes belongs to the evaluation.
    void becomeChild(bool keep) noexcept;

private:
    /// A pipe's end that is read.
    struct Source
    {
        int descriptor;
        rqe::Stream stream;
        std::string begun; ///< of a character, or a line, whose other bytes have not come yet
    };
    using SourcePtr = std::shared_ptr<Source>;

    static constexpr std::size_t kStreams = 2;

    bool openPipes();
    void closePipes();
    void restore() noexcept;
    void settle();
    bool hasUnread() const noexcept;
    bool processesCame() noexcept;
    void run();
    void drain(const SourcePtr& source);
    bool isOwned(const SourcePtr& source) const;
    bool pass(const SourcePtr& source, std::size_t most);
    void handOver(const SourcePtr& source, std::string_view bytes, bool more);
    bool mayWriteOwn(rqe::Stream stream) const noexcept;
    void wake() noexcept;

    std::array<int, kStreams> own_{-1, -1};   ///< what descriptors 1 and 2 were; -1: they were closed
    std::array<int, kStreams> write_{-1, -1}; ///< ends of the pipes
    std::atomic<bool> led_{false};
    bool used_ = false; ///< something came for outlet_; guarded by mutex_
    bool child_ = false;
    long faultsOfChildren_ = 0;
    std::uint64_t lookedForProcesses_ = 0; ///< by the processor's clock

    std::mutex mutex_;               ///< held while something is read and handed over, so that it stays in order
    std::vector<SourcePtr> sources_; ///< the pipes' other ends, and those of former evaluations
    std::array<SourcePtr, kStreams> current_;
    std::shared_ptr<Outlet> outlet_;
    std::unique_ptr<char[]> buffer_;
    bool ownIsFull_ = false;
    bool stopped_ = false;

    int wake_ = -1;
    std::thread thread_;
};

} // namespace vendra::python
