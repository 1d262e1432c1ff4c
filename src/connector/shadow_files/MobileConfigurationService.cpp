#include "connector/shadow_files/MobileConfigurationService.h"

#include <algorithm>
#include <cctype>
#include <memory>
#include <vector>

#include "connector/core/ServiceFault.h"
#include "connector/engine_tasks/EngineFault.h"

namespace connector::shadow_files::v1 {
namespace {

/// Runs in a namespace of its own; leaves one name among the builtins until it is reset.
constexpr const char* kSetup = R"py(
import builtins
import importlib.util
import sys


class LibraryWatch:
    """Puts the colours into a plotting library that is imported later."""

    NAME = "matplotlib"

    def __init__(self, defaults):
        self._defaults = defaults

    def find_spec(self, name, path=None, target=None):
        if name != self.NAME:
            return None
        self.stop()
        spec = importlib.util.find_spec(name)
        if spec is None or spec.loader is None:
            return spec
        run = spec.loader.exec_module

        def run_and_tell(module):
            run(module)
            self._defaults.tell(module)

        spec.loader.exec_module = run_and_tell
        return spec

    def start(self):
        if self not in sys.meta_path:
            sys.meta_path.insert(0, self)

    def stop(self):
        if self in sys.meta_path:
            sys.meta_path.remove(self)


class DisplayDefaults(dict):
    _PARAMETERS = {"background": "axes.facecolor", "figure": "figure.facecolor"}

    def __init__(self):
        self._before = {}
        self._watch = LibraryWatch(self)

    @staticmethod
    def _parameters():
        return getattr(sys.modules.get(LibraryWatch.NAME), "rcParams", None)

    def put(self, name, color):
        self[name] = color
        parameters = self._parameters()
        if parameters is None:
            self._watch.start()
            return False
        self._put(parameters, name, color)
        return True

    def _put(self, parameters, name, color):
        key = self._PARAMETERS[name]
        self._before.setdefault(key, parameters[key])
        parameters[key] = color

    def tell(self, library):
        for name, color in self.items():
            self._put(library.rcParams, name, color)

    def reset(self):
        self._watch.stop()
        parameters = self._parameters()
        if parameters is not None:
            parameters.update(self._before)
        self._before.clear()
        self.clear()
        if getattr(builtins, "display_defaults", None) is self:
            del builtins.display_defaults
        return parameters is not None


if type(getattr(builtins, "display_defaults", None)).__name__ != "DisplayDefaults":
    builtins.display_defaults = DisplayDefaults()
)py";

class Discard final : public rqe::OutputSink
{
public:
    void write(rqe::Stream, std::string_view) override {}
};

class DisplayTask final : public rqe::Task
{
public:
    DisplayTask(const char* function, std::vector<std::string> arguments)
        : function_(function), arguments_(std::move(arguments))
    {}

    Future<bool> future() const { return promise_.future(); }

    void run(rqe::Interpreter& interpreter) override
    {
        Discard discard;
        std::vector<matrix::ArrayPtr> setup;
        setup.push_back(matrix::create(std::string_view(kSetup)));
        setup.push_back(matrix::createStruct({}));
        interpreter.call("builtins.exec", std::move(setup), 0, discard);

        std::vector<matrix::ArrayPtr> arguments;
        for (const auto& argument : arguments_)
            arguments.push_back(matrix::create(std::string_view(argument)));
        const auto results = interpreter.call(function_, std::move(arguments), 1, discard);
        const auto* told = results.at(0) ? results[0]->elements<matrix::Logical>() : nullptr;
        told_ = told && !told->empty() && told->front().value != 0;
    }

    void finish() noexcept override { promise_.setValue(told_); }

    void abandon(std::exception_ptr reason) noexcept override
    {
        try {
            std::rethrow_exception(reason);
        } catch (const rqe::ScriptError& error) {
            promise_.setException(engine_tasks::faultOf(error, {{"output", std::string()}}));
        } catch (const rqe::EngineError& error) {
            promise_.setException(engine_tasks::faultOf(error));
        } catch (...) {
            promise_.setException(reason);
        }
    }

private:
    const char* const function_;
    const std::vector<std::string> arguments_;
    bool told_ = false;
    Promise<bool> promise_;
};

const std::string& checkedColor(const std::string& color)
{
    const bool valid = color.size() == 7 && color[0] == '#' && std::all_of(color.begin() + 1, color.end(), [](char c) {
                           return std::isxdigit(static_cast<unsigned char>(c)) != 0;
                       });
    if (!valid)
        throw ServiceFault("badRequest", "A colour is written \"#rrggbb\", not \"" + color.substr(0, 100) + "\".");
    return color;
}

} // namespace

Future<bool> MobileConfigurationServiceImpl::setBgColor(const std::string& color)
{
    return post("builtins.display_defaults.put", {"background", color});
}

Future<bool> MobileConfigurationServiceImpl::resetBgColor() { return post("builtins.display_defaults.reset", {}); }

Future<bool> MobileConfigurationServiceImpl::changeDefaultFigureColor(const std::string& color)
{
    return post("builtins.display_defaults.put", {"figure", color});
}

Future<bool> MobileConfigurationServiceImpl::post(const char* function, std::vector<std::string> arguments)
{
    try {
        if (!arguments.empty())
            checkedColor(arguments.back());
        if (!engine_)
            throw ServiceFault("unavailable", "There is no interpreter in this process.");
        auto task = std::make_unique<DisplayTask>(function, std::move(arguments));
        auto future = task->future();
        engine_->post(std::move(task));
        return future;
    } catch (const rqe::EngineError& error) {
        return makeFailedFuture<bool>(engine_tasks::faultOf(error));
    } catch (...) {
        return makeFailedFuture<bool>(std::current_exception());
    }
}

} // namespace connector::shadow_files::v1
