#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "connector/Export.h"
#include "connector/core/ServiceProvider.h"
#include "platform/matrix/Array.h"
#include "platform/rqe/Browsing.h"

/// What a console needs of an interpreter besides evaluation. The JSON forms are those of docs/interpreter.md; texts
/// are UTF-8.
namespace connector::desktop::v1 {

class DesktopServiceProvider;

/// What only looks, and need not wait for the end of what the interpreter runs.
class CONNECTOR_API LookRequest : public ServiceMessage<DesktopServiceProvider>
{
public:
    bool inOrder = false; ///< wait all the same, since a message before it in its container may change what it sees
};

/// Lists variables.
class CONNECTOR_API Workspace final : public LookRequest
{
public:
    std::size_t offset = 0;
    std::size_t limit = 1'000;
    std::string pattern; ///< with * ? [abc]; empty for all

    MessageFuture deliverTo(std::shared_ptr<DesktopServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

class CONNECTOR_API WorkspaceResponse final : public Message
{
public:
    rqe::WorkspacePage page;
};

/// Looks at a variable or something inside it.
class CONNECTOR_API Variable final : public LookRequest
{
public:
    rqe::ValueQuery query;

    MessageFuture deliverTo(std::shared_ptr<DesktopServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

class CONNECTOR_API VariableResponse final : public Message
{
public:
    rqe::Path path; ///< as asked
    rqe::ValueView view;
};

/// Sets a variable, or what is at a path inside it.
class CONNECTOR_API SetVariable final : public ServiceMessage<DesktopServiceProvider>
{
public:
    std::string name;
    rqe::Path path; ///< empty for the variable itself
    matrix::ArrayPtr value;

    MessageFuture deliverTo(std::shared_ptr<DesktopServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

class CONNECTOR_API SetVariableResponse final : public Message
{};

/// Removes a variable.
class CONNECTOR_API ClearVariable final : public ServiceMessage<DesktopServiceProvider>
{
public:
    std::string name;

    MessageFuture deliverTo(std::shared_ptr<DesktopServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

class CONNECTOR_API ClearVariableResponse final : public Message
{
public:
    explicit ClearVariableResponse(bool wasThere) : cleared(wasThere) {}
    bool cleared; ///< false when there was none
};

/// Asks which variables changed, and may wait until some do.
class CONNECTOR_API VariableChange final : public ServiceMessage<DesktopServiceProvider>
{
public:
    bool subscribe = true; ///< false: the client stops watching, and is answered at once
    std::string since;     ///< a token; empty to begin
    std::chrono::milliseconds wait{0};

    MessageFuture deliverTo(std::shared_ptr<DesktopServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

class CONNECTOR_API VariableChangeResponse final : public Message
{
public:
    rqe::VariableChanges changes;
};

/// Asks what may stand at the cursor.
class CONNECTOR_API TabCompletion final : public LookRequest
{
public:
    std::string text;
    std::optional<std::size_t> cursor; ///< in code points; at the end of the text when there is none
    std::size_t limit = 200;

    MessageFuture deliverTo(std::shared_ptr<DesktopServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

class CONNECTOR_API TabCompletionResponse final : public Message
{
public:
    std::size_t replaceFrom = 0; ///< in code points
    std::vector<std::string> candidates;
    std::size_t total = 0; ///< candidates without the limit
};

/// Asks for the current folder, and sets it before when a path is given.
class CONNECTOR_API CurrentFolder final : public ServiceMessage<DesktopServiceProvider>
{
public:
    std::optional<std::string> path; ///< relative to the current folder; ~ is the home folder

    MessageFuture deliverTo(std::shared_ptr<DesktopServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

class CONNECTOR_API CurrentFolderResponse final : public Message
{
public:
    explicit CurrentFolderResponse(std::string now) : folder(std::move(now)) {}
    std::string folder;
};

} // namespace connector::desktop::v1
