#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <vector>

#include "connector/Export.h"
#include "connector/shadow_files/Behaviors.h"
#include "connector/shadow_files/PathManager.h"

namespace connector::shadow_files::v1 {

/// What a client type file says (docs/protocol.md).
struct ClientTypeFile
{
    std::string clientType;
    std::vector<std::string> folders; ///< absolute
    BehaviorSet behaviors;
};

/// Which folders of scripts shadow others for which type of client. Threads: any.
class CONNECTOR_API ShadowService
{
public:
    using Folders = std::shared_ptr<const std::vector<std::string>>;

    virtual ~ShadowService() = default;

    /// Reads a file, a local one of at most 1 MiB, and puts what it says before what other files say of the same client
    /// type. A file loaded again says only what it says now. Throws std::invalid_argument with the path and what is
    /// wrong; nothing changes then.
    virtual ClientTypeFile loadClientTypeFile(const std::string& path) = 0;

    /// The text of the behaviour that holds for the client type; none when no file says any.
    virtual std::optional<std::string> behavior(const std::string& clientType, const std::string& name) const = 0;

    /// The client type's folders; null when it has none.
    virtual Folders getUseCaseDirectories(const std::string& clientType) const = 0;
    virtual bool requiresPath(const std::string& clientType) const = 0;

    /// Puts the client type's folders on the interpreter's search path. Answers what is to be handed to removeFromPath,
    /// null when there is nothing to put. Throws as PathManager::addPaths.
    virtual Folders addToPath(const std::string& clientType) = 0;
    virtual void removeFromPath(const Folders& folders) noexcept = 0;
};

class CONNECTOR_API ShadowServiceImpl final : public ShadowService
{
public:
    static constexpr std::size_t kMaxFiles = 1'000;
    static constexpr std::size_t kMaxFileBytes = 1u << 20;
    static constexpr std::size_t kMaxFolders = 100; ///< in one file

    ShadowServiceImpl(std::shared_ptr<PathManager> paths, std::shared_ptr<Behaviors> behaviors);
    ~ShadowServiceImpl() override;

    ClientTypeFile loadClientTypeFile(const std::string& path) override;
    std::optional<std::string> behavior(const std::string& clientType, const std::string& name) const override;
    Folders getUseCaseDirectories(const std::string& clientType) const override;
    bool requiresPath(const std::string& clientType) const override;
    Folders addToPath(const std::string& clientType) override;
    void removeFromPath(const Folders& folders) noexcept override;

private:
    struct Loaded
    {
        std::string path;
        std::string clientType;
        std::vector<std::string> folders;
    };

    void takeBehaviors(const std::string& path, const ClientTypeFile& file, const Loaded* before);
    void rebuild();

    const std::shared_ptr<PathManager> paths_;
    const std::shared_ptr<Behaviors> behaviors_;
    std::mutex loadMutex_;
    std::vector<Loaded> files_; ///< the latest last; guarded by loadMutex_
    mutable std::shared_mutex mutex_;
    std::map<std::string, Folders, std::less<>> folders_; ///< by client type
};

} // namespace connector::shadow_files::v1
