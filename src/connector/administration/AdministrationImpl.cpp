#include "connector/administration/AdministrationImpl.h"

#include <exception>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <utility>

namespace connector::administration {

AdministrationImpl::AdministrationImpl() = default;
AdministrationImpl::~AdministrationImpl() = default;

Future<std::string> AdministrationImpl::execute(const std::string& name, std::vector<std::string>&& arguments)
{
    Command::Action action;
    {
        std::shared_lock lock(mutex_);
        if (const auto found = commands_.find(name); found != commands_.end())
            action = found->second.back().action();
    }
    if (!action)
        return makeFailedFuture<std::string>(std::invalid_argument("There is no command \"" + name + "\"."));
    try {
        auto output = action(std::move(arguments));
        if (!output.valid())
            throw std::runtime_error("The command \"" + name + "\" gave no answer.");
        return output;
    } catch (...) {
        return makeFailedFuture<std::string>(std::current_exception());
    }
}

Future<bool> AdministrationImpl::add(Command&& command)
{
    const auto name = command.name();
    if (name.empty() || name.find_first_of(" \t\r\n") != std::string::npos)
        return makeFailedFuture<bool>(std::invalid_argument("A command's name is one word; \"" + name + "\" is not."));
    if (!command.action())
        return makeFailedFuture<bool>(std::invalid_argument("The command \"" + name + "\" has no action."));
    std::lock_guard lock(mutex_);
    auto& named = commands_[name];
    named.push_back(std::move(command));
    return makeReadyFuture(named.size() == 1);
}

Future<bool> AdministrationImpl::remove(const std::string& name)
{
    // What the action owns goes after the lock.
    std::optional<Command> removed;
    std::lock_guard lock(mutex_);
    const auto found = commands_.find(name);
    if (found == commands_.end())
        return makeReadyFuture(false);
    removed = std::move(found->second.front());
    found->second.erase(found->second.begin());
    if (found->second.empty())
        commands_.erase(found);
    return makeReadyFuture(true);
}

Future<std::vector<Command>> AdministrationImpl::getAll()
{
    std::vector<Command> commands;
    std::shared_lock lock(mutex_);
    for (const auto& [name, command] : commands_)
        commands.push_back(command.back());
    return makeReadyFuture(std::move(commands));
}

std::shared_ptr<Administration> AdministrationImpl::getPtr() { return shared_from_this(); }

} // namespace connector::administration
