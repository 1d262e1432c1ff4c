#include "connector/administration/Administration.h"

#include <exception>
#include <stdexcept>

#include "connector/common/Log.h"

namespace connector::administration {

CommandProvider::CommandProvider(std::shared_ptr<Administration> administration)
    : administration_(std::move(administration))
{
    if (!administration_)
        throw std::invalid_argument("A command provider needs the administration.");
}

CommandProvider::~CommandProvider()
{
    for (const auto& name : names_) {
        try {
            administration_->remove(name).get();
        } catch (const std::exception& error) {
            common::log("connector.administration", common::LogLevel::error,
                        "Cannot remove the command \"" + name + "\": " + error.what());
        }
    }
}

void CommandProvider::add(Command command)
{
    names_.reserve(names_.size() + 1);
    auto name = command.name();
    administration_->add(std::move(command)).get();
    names_.push_back(std::move(name));
}

} // namespace connector::administration
