#pragma once

#include <map>
#include <memory>
#include <string>

#include "platform/Export.h"
#include "platform/us/Bundle.h"

namespace us {

/// A service registry with its bundles, itself the bundle of id 0. Several in one process do not see each other.
///
/// `Stop` returns when its services are unregistered, its listeners gone, its trackers empty and its context dead; it
/// may be started again. Destroying it stops it. References, registrations, trackers and service objects that are left
/// over stay safe to use and to destroy, and do nothing.
class VENDRA_PLATFORM_API Framework final : public Bundle
{
    struct Key
    {};

public:
    Framework(Key key, std::shared_ptr<detail::Core> core, detail::BundleRecord& record);
    ~Framework() override;

    void Start() override;
    void Stop() override;
    /// Throws std::runtime_error.
    void Uninstall() override;

private:
    friend class FrameworkFactory;
};

class VENDRA_PLATFORM_API FrameworkFactory
{
public:
    FrameworkFactory() = default;
    FrameworkFactory(const FrameworkFactory&) = delete;
    FrameworkFactory& operator=(const FrameworkFactory&) = delete;

    /// Not started. The configuration can be read back as properties of every bundle; throws std::invalid_argument when
    /// two of its keys differ only in case.
    std::shared_ptr<Framework> NewFramework(const std::map<std::string, Any>& configuration = {}) const;
};

} // namespace us
