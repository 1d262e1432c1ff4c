#include "connector/shadow_files/ShadowService.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "connector/common/FileDescriptor.h"
#include "connector/json/JsonFields.h"
#include "connector/json/JsonText.h"

namespace connector::shadow_files::v1 {
namespace {

namespace fs = std::filesystem;

std::string systemText(int error) { return std::system_category().message(error); }

/// The whole text of a regular file; anything else, a pipe say, could keep the reader waiting.
std::string readFile(const fs::path& path)
{
    const common::FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status = {};
    if (!file || ::fstat(file.number(), &status) != 0)
        throw std::invalid_argument(systemText(errno));
    if (!S_ISREG(status.st_mode))
        throw std::invalid_argument("it is not a regular file");

    std::string text(ShadowServiceImpl::kMaxFileBytes + 1, '\0');
    std::size_t length = 0;
    while (length < text.size()) {
        const auto count = ::read(file.number(), text.data() + length, text.size() - length);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            throw std::invalid_argument(systemText(errno));
        if (count == 0)
            break;
        length += static_cast<std::size_t>(count);
    }
    if (length > ShadowServiceImpl::kMaxFileBytes)
        throw std::invalid_argument("it has more than " + std::to_string(ShadowServiceImpl::kMaxFileBytes) + " bytes");
    text.resize(length);
    return text;
}

/// A folder that the file at `base` names.
std::string folderOf(const fs::path& base, const std::string& name)
{
    if (name.empty() || name.find('\0') != std::string::npos)
        throw json::JsonError("expected a folder's path but found \"" + std::string(name.c_str()) + "\"");
    const auto folder = (base.parent_path() / name).lexically_normal();
    std::error_code failure;
    if (!fs::is_directory(folder, failure))
        throw json::JsonError("there is no folder \"" + folder.native() + "\"");
    auto text = folder.native();
    if (text.size() > 1 && text.ends_with('/'))
        text.pop_back();
    return text;
}

ClientTypeFile parseFile(const fs::path& path, const std::string& text)
{
    const auto object = json::asObject(json::parse(text));
    ClientTypeFile file;
    file.clientType = json::requireString(*object, "clientType");
    if (file.clientType.empty())
        throw json::JsonError("clientType: expected a name but found \"\"");

    const auto folders = json::optionalStrings(*object, "folders");
    if (folders.size() > ShadowServiceImpl::kMaxFolders)
        throw json::JsonError("folders: at most " + std::to_string(ShadowServiceImpl::kMaxFolders) + ", not " +
                              std::to_string(folders.size()));
    for (std::size_t i = 0; i < folders.size(); ++i)
        file.folders.push_back(json::within(
            std::string("folders"), [&] { return json::within(i, [&] { return folderOf(path, folders[i]); }); }));

    if (const auto behaviors = json::optionalObject(*object, "behaviors"))
        for (const auto* member : json::membersInOrder(*behaviors))
            file.behaviors.emplace(member->first, json::within(std::string("behaviors"), [&] {
                                       return json::requireString(*behaviors, member->first);
                                   }));
    return file;
}

} // namespace

ShadowServiceImpl::ShadowServiceImpl(std::shared_ptr<PathManager> paths, std::shared_ptr<Behaviors> behaviors)
    : paths_(std::move(paths)), behaviors_(std::move(behaviors))
{
    if (!paths_ || !behaviors_)
        throw std::invalid_argument("The shadow service needs a path manager and behaviours.");
}

ShadowServiceImpl::~ShadowServiceImpl() = default;

ClientTypeFile ShadowServiceImpl::loadClientTypeFile(const std::string& path)
{
    const auto refuse = [&path](const std::string& why) {
        // As a C text: an exception's text ends at the first NUL anyway.
        throw std::invalid_argument("The client type file \"" + std::string(path.c_str()) +
                                    "\" cannot be loaded: " + why + ".");
    };
    if (!fs::path(path).is_absolute() || path.find('\0') != std::string::npos)
        refuse("expected an absolute path");
    const std::string name = fs::path(path).lexically_normal().native();

    ClientTypeFile file;
    try {
        file = parseFile(name, readFile(name));
    } catch (const std::invalid_argument& error) {
        refuse(error.what());
    }

    std::lock_guard lock(loadMutex_);
    const auto before =
        std::find_if(files_.begin(), files_.end(), [&](const Loaded& loaded) { return loaded.path == name; });
    if (before == files_.end() && files_.size() >= kMaxFiles)
        refuse(std::to_string(kMaxFiles) + " others are loaded already");
    try {
        takeBehaviors(name, file, before == files_.end() ? nullptr : &*before);
    } catch (const std::length_error& error) {
        refuse(error.what());
    }
    if (before != files_.end())
        files_.erase(before);
    files_.push_back({name, file.clientType, file.folders});
    rebuild();
    return file;
}

/// A file's behaviours are a set of its name.
void ShadowServiceImpl::takeBehaviors(const std::string& path, const ClientTypeFile& file, const Loaded* before)
{
    behaviors_->registerBehaviorSet(path, file.behaviors);
    if (before)
        behaviors_->removeBehaviorSet(before->clientType, path);
    try {
        behaviors_->pushBehaviorSet(file.clientType, path);
    } catch (...) {
        // Only a new set finds no room: one that was pushed has just made some.
        behaviors_->unregisterBehaviorSet(path);
        throw;
    }
}

void ShadowServiceImpl::rebuild()
{
    std::map<std::string, std::vector<std::string>> byType;
    for (auto file = files_.rbegin(); file != files_.rend(); ++file) {
        auto& folders = byType[file->clientType];
        for (const auto& folder : file->folders)
            if (std::find(folders.begin(), folders.end(), folder) == folders.end())
                folders.push_back(folder);
    }
    std::map<std::string, Folders, std::less<>> made;
    for (auto& [clientType, folders] : byType)
        if (!folders.empty())
            made.emplace(clientType, std::make_shared<const std::vector<std::string>>(std::move(folders)));
    std::unique_lock lock(mutex_);
    folders_.swap(made);
}

std::optional<std::string> ShadowServiceImpl::behavior(const std::string& clientType, const std::string& name) const
{
    return behaviors_->getBehavior(clientType, name);
}

ShadowService::Folders ShadowServiceImpl::getUseCaseDirectories(const std::string& clientType) const
{
    if (clientType.empty())
        return nullptr;
    std::shared_lock lock(mutex_);
    const auto found = folders_.find(clientType);
    return found == folders_.end() ? nullptr : found->second;
}

bool ShadowServiceImpl::requiresPath(const std::string& clientType) const
{
    return getUseCaseDirectories(clientType) != nullptr;
}

ShadowService::Folders ShadowServiceImpl::addToPath(const std::string& clientType)
{
    auto folders = getUseCaseDirectories(clientType);
    if (folders)
        paths_->addPaths(*folders);
    return folders;
}

void ShadowServiceImpl::removeFromPath(const Folders& folders) noexcept
{
    if (folders)
        paths_->removePaths(*folders);
}

} // namespace connector::shadow_files::v1
