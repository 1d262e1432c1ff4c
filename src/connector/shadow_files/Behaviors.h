#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "connector/Export.h"

namespace connector::shadow_files {

/// Behaviours by name; what a text means is up to those who ask for it.
using BehaviorSet = std::map<std::string, std::string>;

/// Named sets of behaviours, and which of them hold for which type of client. Sets pushed later shadow earlier ones,
/// behaviour by behaviour. Threads: any.
class CONNECTOR_API Behaviors
{
public:
    virtual ~Behaviors() = default;

    /// The text that holds for the client type; none when no set pushed for it has such a behaviour.
    virtual std::optional<std::string> getBehavior(const std::string& clientType, const std::string& name) const = 0;

    /// Makes a set known, or gives it new contents where it is pushed already. Throws std::length_error, naming the
    /// set, beyond the bounds; nothing changes then.
    virtual void registerBehaviorSet(const std::string& set, BehaviorSet behaviors) = 0;
    /// Forgets a set and takes it off every client type; an unknown one is ignored.
    virtual void unregisterBehaviorSet(const std::string& set) = 0;

    /// Puts a set on top for a client type. Throws std::invalid_argument for an unknown set, std::length_error beyond
    /// the bounds.
    virtual void pushBehaviorSet(const std::string& clientType, const std::string& set) = 0;
    /// Takes back the latest push of the set; none is ignored.
    virtual void removeBehaviorSet(const std::string& clientType, const std::string& set) = 0;
};

class CONNECTOR_API BehaviorsImpl final : public Behaviors
{
public:
    static constexpr std::size_t kMaxSets = 1'000;
    static constexpr std::size_t kMaxBytesOfSet = 1u << 20; ///< names and texts together
    static constexpr std::size_t kMaxPushed = 1'000;        ///< over all client types

    BehaviorsImpl();
    ~BehaviorsImpl() override;

    std::optional<std::string> getBehavior(const std::string& clientType, const std::string& name) const override;
    void registerBehaviorSet(const std::string& set, BehaviorSet behaviors) override;
    void unregisterBehaviorSet(const std::string& set) override;
    void pushBehaviorSet(const std::string& clientType, const std::string& set) override;
    void removeBehaviorSet(const std::string& clientType, const std::string& set) override;

private:
    struct Push
    {
        std::string clientType;
        std::string set;
    };

    mutable std::mutex mutex_;
    std::map<std::string, BehaviorSet> sets_;
    std::vector<Push> pushed_; ///< the latest last
};

} // namespace connector::shadow_files
