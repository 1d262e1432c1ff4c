#pragma once

#include <string>
#include <vector>

#include "connector/Export.h"
#include "connector/core/ServiceProvider.h"

namespace connector::http {

class StaticContentManagerServiceProvider;

/// Base of the requests to "connector/http/staticContentManager".
using StaticContentManagerMessage = ServiceMessage<StaticContentManagerServiceProvider>;

/// A folder that is served under a URL prefix.
struct ContentRoot
{
    std::string prefix; ///< "" or "/a/b", decoded
    std::string folder; ///< absolute, UTF-8
    bool userFiles = true;
};

/// Serves the files of one more folder; replaces a root with the same prefix.
class CONNECTOR_API AddContentRoot final : public StaticContentManagerMessage
{
public:
    AddContentRoot() = default;
    AddContentRoot(std::string prefixText, std::string folderPath, bool areUserFiles = true)
        : prefix(std::move(prefixText)), folder(std::move(folderPath)), userFiles(areUserFiles)
    {}
    std::string prefix; ///< "" or "/a/b", decoded
    std::string folder; ///< absolute, UTF-8; need not exist yet
    bool userFiles = true;

    MessageFuture deliverTo(std::shared_ptr<StaticContentManagerServiceProvider> provider,
                            std::unique_ptr<Message>&& message, Address&& address,
                            std::shared_ptr<Context>&& context) override;
};

class CONNECTOR_API AddContentRootResponse final : public Message
{
public:
    ContentRoot root;
};

/// Serves a root no more.
class CONNECTOR_API RemoveContentRoot final : public StaticContentManagerMessage
{
public:
    RemoveContentRoot() = default;
    explicit RemoveContentRoot(std::string prefixText) : prefix(std::move(prefixText)) {}
    std::string prefix;

    MessageFuture deliverTo(std::shared_ptr<StaticContentManagerServiceProvider> provider,
                            std::unique_ptr<Message>&& message, Address&& address,
                            std::shared_ptr<Context>&& context) override;
};

class CONNECTOR_API RemoveContentRootResponse final : public Message
{
public:
    std::string prefix;
};

class CONNECTOR_API ListContentRoots final : public StaticContentManagerMessage
{
public:
    MessageFuture deliverTo(std::shared_ptr<StaticContentManagerServiceProvider> provider,
                            std::unique_ptr<Message>&& message, Address&& address,
                            std::shared_ptr<Context>&& context) override;
};

class CONNECTOR_API ListContentRootsResponse final : public Message
{
public:
    std::vector<ContentRoot> roots; ///< in descending order of the prefixes
};

} // namespace connector::http
