#pragma once

#include <functional>
#include <map>
#include <mutex>

#include "connector/configuration/Configuration.h"
#include "connector/http/StaticContentService.h"

namespace connector::http {

/// The roots of this process. A lookup works on a table that nobody changes; a change makes a new one.
class CONNECTOR_API StaticContentServiceImpl final : public StaticContentService
{
public:
    using Roots = std::map<std::string, std::wstring, std::greater<std::string>>;
    using Flags = std::map<std::string, bool, std::greater<std::string>>;

    /// `flags` says of a prefix in `roots` whether its files are the user's, `flagDefault` of the others. The roots of
    /// the key http.contentRoots come on top, as user files; an entry that is no good is logged. Throws as `addRoot`
    /// does for `roots`, but takes relative folders, which have no files: an installation whose place is not known
    /// serves nothing.
    StaticContentServiceImpl(std::shared_ptr<configuration::Configuration> configuration, Roots roots, Flags flags,
                             bool flagDefault);
    ~StaticContentServiceImpl() override;

    void addRoot(const Root& root) override;
    void removeRoot(const std::string& prefix) override;
    std::vector<Root> listRoots() override;
    content::FoundContent find(std::string_view path, content::Codings accepted) override;

private:
    struct Entry;
    struct Table;

    void addConfigured(const std::string& entry);
    void insert(const Root& root);
    std::shared_ptr<const Table> table() const;
    void replaceTable(Table table);

    std::mutex changes_;       ///< held while a new table is made
    mutable std::mutex mutex_; ///< held while the pointer is read or set
    std::shared_ptr<const Table> table_;
};

} // namespace connector::http
