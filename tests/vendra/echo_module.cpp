// A module for tests of the host: its builtins do nothing but show what reaches them. Built several times, each but the
// first with one thing wrong.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <unistd.h>

#include "platform/matrix/Array.h"
#include "platform/rqe/ProcessSession.h"
#include "platform/rqe/RQE.h"
#include "platform/shutdown/ShutdownObject.h"
#include "platform/shutdown/ShutdownRegistry.h"

#ifndef TEST_SIGNATURE
#define TEST_SIGNATURE 0x94075315
#endif
#ifndef TEST_RESERVED
#define TEST_RESERVED 0
#endif
#ifndef TEST_COUNT
#define TEST_COUNT 23
#endif

namespace {

using Arguments = const vxArray**;

std::mutex outcomesMutex;
std::vector<std::string> outcomes; ///< of tasks, in order of their end

void note(std::string outcome)
{
    std::lock_guard lock(outcomesMutex);
    outcomes.push_back(std::move(outcome));
}

class Sink : public rqe::OutputSink
{
public:
    void write(rqe::Stream, std::string_view text) override { text_ += text; }
    std::string text_;
};

/// Evaluates code and notes its output, its value or its error.
class CodeTask : public rqe::Task
{
public:
    explicit CodeTask(std::string code) : code_(std::move(code)) {}
    void run(rqe::Interpreter& interpreter) override
    {
        Sink sink;
        try {
            outcome_ = interpreter.evaluate(code_, {}, sink).valueText;
        } catch (const rqe::ScriptError& error) {
            outcome_ = error.type();
        }
        outcome_ = sink.text_ + outcome_;
    }
    void finish() noexcept override
    {
        if (std::getenv("TEST_ANNOUNCES")) {
            std::printf("finished %s\n", outcome_.c_str());
            std::fflush(stdout);
        }
        note(outcome_);
    }
    void abandon(std::exception_ptr) noexcept override { std::fputs("abandoned\n", stderr); }

private:
    std::string code_;
    std::string outcome_;
};

rqe::TaskId post(const vxArray* code)
{
    return rqe::Factory::getCurrentLocalRQE()->post(std::make_unique<CodeTask>(matrix::get_string(code)));
}

class Hook : public ShutdownObject
{
public:
    Hook() : ShutdownObject("hook") {}
    void shutdown() override { std::fputs("hook ran\n", stderr); }
};

void nothing(int, vxArray**, int, Arguments) {}

/// Announces an address as the module does, and registers a hook.
void start(int, vxArray**, int, Arguments)
{
    ShutdownRegistry::RegisterObject(new Hook);
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (!runtime || std::getenv("TEST_SILENT"))
        return;
    std::filesystem::path folder = std::filesystem::path(runtime) / "vendra";
    std::filesystem::create_directories(folder);
    std::ofstream(folder / (std::to_string(::getpid()) + ".json"))
        << R"({"url":"http://127.0.0.1:1/","pid":1,"token":"secret"})";
}

void echo(int, vxArray* results[], int, Arguments arguments) { results[0] = matrix::clone(*arguments[0]).release(); }

void fail(int, vxArray* results[], int, Arguments arguments)
{
    results[0] = vxCreateDoubleScalar(1); // the host frees it
    std::string kind = matrix::get_string(arguments[0]);
    if (kind == "argument")
        throw std::invalid_argument("a wrong argument");
    if (kind == "memory")
        throw std::bad_alloc();
    if (kind == "system")
        throw std::system_error(ENOENT, std::generic_category(), "a file");
    if (kind == "runtime")
        throw std::runtime_error("no UTF-8: \xFF");
    throw 5;
}

/// Describes the arguments: the second slot is there even when only one was given.
void describe(int nlhs, vxArray* results[], int nrhs, Arguments arguments)
{
    std::string text = std::to_string(nlhs) + " " + std::to_string(nrhs) + (arguments[1] ? " two" : " one") + " " +
                       matrix::className(arguments[0]->class_id());
    for (std::size_t size : arguments[0]->dimensions())
        text += " " + std::to_string(size);
    results[0] = matrix::create(text).release();
}

void postCode(int, vxArray**, int, Arguments arguments) { post(arguments[0]); }

/// Posts code and interrupts it once it runs.
void postAndBreak(int, vxArray**, int, Arguments arguments)
{
    rqe::TaskId task = post(arguments[0]);
    static std::vector<std::jthread> threads;
    threads.emplace_back([task, engine = rqe::Factory::getCurrentLocalRQE()] {
        while (engine->state() != rqe::RQE::State::closed && !engine->interrupt(task))
            std::this_thread::yield();
    });
}

void listOutcomes(int, vxArray* results[], int, Arguments)
{
    std::lock_guard lock(outcomesMutex);
    matrix::ArrayPtr cell = matrix::detail::create_cell(outcomes.size(), 1);
    for (std::size_t i = 0; i < outcomes.size(); ++i)
        vxSetCell(cell.get(), i, matrix::to_vendra(matrix::create(outcomes[i])));
    results[0] = cell.release();
}

/// A 2-by-3 array of the class that the argument names.
void shaped(int, vxArray* results[], int, Arguments arguments)
{
    std::string kind = matrix::get_string(arguments[0]);
    matrix::ArrayPtr array;
    if (kind == "char")
        array = matrix::create({2, 3}, std::vector<char16_t>{u'a', u'd', u'b', u'e', u'c', u'f'});
    else if (kind == "double")
        array = matrix::create({2, 3}, std::vector<double>{1, 4, 2, 5, 3, 6});
    else if (kind == "struct")
        array = matrix::create({1, 2}, [] {
            matrix::StructData data;
            data.fields = {"f"};
            data.values.push_back(matrix::createScalar(1.0));
            data.values.push_back(nullptr);
            return data;
        }());
    else if (kind == "cell")
        array = matrix::detail::create_cell(2, 2);
    else if (kind == "deep")
        for (int i = 0; i < 100; ++i) {
            std::vector<matrix::ArrayPtr> inner;
            inner.push_back(std::move(array));
            array = matrix::createCellRow(std::move(inner));
        }
    results[0] = array.release();
}

using Gateway = void (*)(int, vxArray**, int, Arguments);

const Gateway entries[] = {start,        nothing,      echo,     nothing, fail,    nothing,
                           postCode,     nothing,      describe, nothing, nothing, postAndBreak,
#ifdef TEST_HOLE
                           nullptr,
#else
                           listOutcomes,
#endif
                           listOutcomes, nothing,      shaped,   nothing, nothing, nothing,
                           echo,         listOutcomes, nothing,  nothing,
#ifdef TEST_UNENDED
                           nothing
#else
                           nullptr
#endif
};

struct Record
{
    const Gateway* entries;
    std::uint32_t signature;
    std::uint32_t reserved;
    std::int64_t buildTime;
    std::uint64_t count;
};
const Record record = {entries, TEST_SIGNATURE, TEST_RESERVED, 0, TEST_COUNT};

} // namespace

#define EXPORT extern "C" __attribute__((visibility("default")))

#ifndef TEST_WITHOUT_QUERY
EXPORT const void* QueryVDFcnTable_libzkconnectorusvendrahost() { return &record; }
#endif
EXPORT const char* const libzkconnectorusvendrahost_version;
EXPORT const char* const libzkconnectorusvendrahost_build_date;
EXPORT const char* const libzkconnectorusvendrahost_relative_path;
const char* const libzkconnectorusvendrahost_version = "9.8.7.6";
#ifndef TEST_WITHOUT_DATE
const char* const libzkconnectorusvendrahost_build_date = "Aug  7 2018";
#endif
const char* const libzkconnectorusvendrahost_relative_path = "bin\\win64\\libzkconnectorusvendrahost.so";
