#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "connector/Export.h"
#include "connector/core/ServiceProvider.h"
#include "platform/matrix/Array.h"

namespace connector::interpreter::v1 {

class InterpreterServiceProvider;

/// Runs code in the interpreter's workspace.
class CONNECTOR_API Eval final : public ServiceMessage<InterpreterServiceProvider>
{
public:
    std::string code; ///< UTF-8, any number of statements
    bool wantValue = true;
    bool echo = false;                     ///< print the value of each expression statement, as the terminal does
    std::chrono::milliseconds deadline{0}; ///< then it is interrupted; none when zero
    std::string outputChannel; ///< of the bus, where what is printed goes while it runs; empty for the answer

    MessageFuture deliverTo(std::shared_ptr<InterpreterServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

/// What code or a function printed.
struct Output
{
    std::string text;             ///< standard output and standard error in the order of printing; valid UTF-8
    std::size_t omittedBytes = 0; ///< beyond interpreter.maxOutputBytes
    std::size_t messages = 0;     ///< published on the output channel instead
};

class CONNECTOR_API EvalResponse final : public Message
{
public:
    bool hasValue = false;
    matrix::ArrayPtr value; ///< null when not wanted, not there, or without an array form
    std::string valueText;  ///< as the language prints it
    std::string conversionError;
    Output output;
};

/// Calls a function by name.
class CONNECTOR_API FEval final : public ServiceMessage<InterpreterServiceProvider>
{
public:
    /// An argument that is a result of an earlier call of the sequence; positions count from 0.
    struct Use
    {
        std::size_t argument;
        std::size_t call;
        std::size_t result;
    };

    std::string function; ///< dotted name
    std::vector<matrix::ArrayPtr> arguments;
    std::vector<std::pair<std::string, matrix::ArrayPtr>> keywordArguments;
    std::size_t results = 1;               ///< how many are wanted; 0 to 100
    std::chrono::milliseconds deadline{0}; ///< as of Eval
    std::string outputChannel;
    std::vector<Use> uses; ///< only in a sequence

    MessageFuture deliverTo(std::shared_ptr<InterpreterServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

class CONNECTOR_API FEvalResponse final : public Message
{
public:
    std::vector<matrix::ArrayPtr> results;
    Output output;
};

/// Asks for an answer that was too large for the bus.
class CONNECTOR_API FetchAnswer final : public ServiceMessage<InterpreterServiceProvider>
{
public:
    std::string answer; ///< its id

    MessageFuture deliverTo(std::shared_ptr<InterpreterServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

class CONNECTOR_API FetchAnswerResponse final : public Message
{
public:
    explicit FetchAnswerResponse(std::shared_ptr<const Message> kept) : answer(std::move(kept)) {}
    std::shared_ptr<const Message> answer; ///< EvalResponse or FEvalResponse
};

/// Breaks what the interpreter runs for the client that sends it.
class CONNECTOR_API Interrupt final : public ServiceMessage<InterpreterServiceProvider>
{
public:
    bool everybody = false; ///< whatever runs, also the terminal's line

    MessageFuture deliverTo(std::shared_ptr<InterpreterServiceProvider> provider, std::unique_ptr<Message>&& message,
                            Address&& address, std::shared_ptr<Context>&& context) override;
};

class CONNECTOR_API InterruptResponse final : public Message
{
public:
    explicit InterruptResponse(bool wasRunning) : interrupted(wasRunning) {}
    bool interrupted; ///< false when nothing of the kind ran or waited
};

} // namespace connector::interpreter::v1
