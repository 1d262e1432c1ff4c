#pragma once

#include <string>
#include <string_view>

#include <Poco/Dynamic/Var.h>

#include "connector/bayeux/BayeuxServer.h"
#include "connector/json/JsonText.h"

namespace connector::bayeux {

/// The id of a message, as JSON text: that of a string or a number; "" without one.
std::string_view idOf(const json::RawValue& message);

/// A failure as it stands in a reply: "code:argument:text".
struct Refusal
{
    unsigned code;
    std::string argument; ///< what is wrong
    std::string text;     ///< this and the argument: any bytes, cut and cleaned when written

    std::string errorText() const;
};

/// The text of one reply, member by member.
class Reply
{
public:
    /// `channel` may be "", for an answer to what had none.
    Reply(std::string_view channel, bool successful);

    Reply& addText(std::string_view name, std::string_view text);
    /// `json` is a value's text.
    Reply& add(std::string_view name, std::string_view json);
    /// Nothing when `id` is "".
    Reply& addId(std::string_view id);
    Reply& addError(const Refusal& refusal);
    /// Ends it.
    std::string take();

private:
    std::string& begin(std::string_view name);

    std::string text_;
};

/// Advice is always sent whole: clients replace what they have by what they get.
enum class Reconnect
{
    retry,
    handshake,
    none
};
std::string adviceText(Reconnect reconnect, const BayeuxLimits& limits);
/// For the connect that is not held since others of the same browser are.
std::string multipleClientsAdvice(const BayeuxLimits& limits);

} // namespace connector::bayeux
