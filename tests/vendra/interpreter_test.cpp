// The embedded interpreter as tasks see it, in this process.

#include <filesystem>
#include <fstream>
#include <thread>

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include "platform/rqe/LocalRQE.h"
#include "vendra/python/PythonHost.h"

using rqe::EvalOptions;
using rqe::EvalResult;
using rqe::Interpreter;
using rqe::ScriptError;

namespace {

class Recorder : public rqe::OutputSink
{
public:
    void write(rqe::Stream stream, std::string_view text) override
    {
        (stream == rqe::Stream::output ? out : err) += text;
        all += text;
        ++pieces;
    }
    std::string out;
    std::string err;
    std::string all;
    std::size_t pieces = 0;
};

class FunctionTask : public rqe::Task
{
public:
    explicit FunctionTask(std::function<void(Interpreter&)> body) : body_(std::move(body)) {}
    void run(Interpreter& interpreter) override { body_(interpreter); }
    void finish() noexcept override {}
    void abandon(std::exception_ptr) noexcept override { ADD_FAILURE() << "the task was abandoned"; }

private:
    std::function<void(Interpreter&)> body_;
};

class InterpreterTest : public testing::Test
{
protected:
    static void SetUpTestSuite() { host = std::make_unique<vendra::python::PythonHost>(settings()); }
    static void TearDownTestSuite()
    {
        EXPECT_EQ(host->finish(0), 0);
        host.reset();
    }
    static vendra::python::PythonHost::Settings settings() { return {{"test"}, false}; }

    void SetUp() override { engine = std::make_unique<rqe::LocalRQE>(*host); }
    void TearDown() override
    {
        host->giveBackDescriptors(); // the test program prints, too
        use([&](Interpreter& interpreter) {
            for (const auto& variable : interpreter.listVariables())
                interpreter.clearVariable(variable.name);
        });
    }

    template <class Body>
    void use(Body body)
    {
        host->withInterpreter([&](Interpreter& interpreter) { body(interpreter); });
    }
    EvalResult evaluate(const std::string& code, const EvalOptions& options = {})
    {
        EvalResult result;
        use([&](Interpreter& interpreter) { result = interpreter.evaluate(code, options, output); });
        return result;
    }
    ScriptError errorOf(const std::string& code, const EvalOptions& options = {})
    {
        try {
            evaluate(code, options);
        } catch (const ScriptError& error) {
            return error;
        }
        return {"no error", code, ""};
    }

    static std::unique_ptr<vendra::python::PythonHost> host;
    std::unique_ptr<rqe::LocalRQE> engine;
    Recorder output;
};

std::unique_ptr<vendra::python::PythonHost> InterpreterTest::host;

TEST_F(InterpreterTest, keepsTheValueOfALastExpression)
{
    struct Case
    {
        const char* code;
        bool hasValue;
        const char* text;
    };
    for (const Case& c : {Case{"6 * 7", true, "42"}, Case{"x = 1\nx + 1", true, "2"}, Case{"x = 1", false, ""},
                          Case{"None", false, ""}, Case{"", false, ""}, Case{"# nothing", false, ""},
                          Case{"'a'\n'b'", true, "'b'"}, Case{"for i in range(3):\n    i", false, ""},
                          Case{"1;2;3", true, "3"}, Case{"1,", true, "(1,)"}, Case{"x = 1\r\nx\r\n", true, "1"}}) {
        EvalResult result = evaluate(c.code);
        EXPECT_EQ(result.hasValue, c.hasValue) << c.code;
        EXPECT_EQ(result.valueText, c.text) << c.code;
        EXPECT_EQ(result.value != nullptr, c.hasValue) << c.code;
    }
    EXPECT_EQ(output.all, "");
    EXPECT_FALSE(evaluate("1 + 1", {.wantValue = false}).hasValue);
    EXPECT_EQ(
        evaluate("from __future__ import annotations\ndef f(a: no): pass\n(lambda: f.__annotations__)()").valueText,
        "{'a': 'no'}");
}

TEST_F(InterpreterTest, echoesAsThePromptDoesWithoutTouchingTheUnderscore)
{
    evaluate("import builtins; builtins._ = 'kept'");
    EvalResult result = evaluate("1\nx = 2\nfor i in (3, None, 4): i\nx * 10", {.echo = true});
    EXPECT_EQ(output.out, "1\n3\n4\n20\n");
    EXPECT_EQ(result.valueText, "20");
    EXPECT_EQ(evaluate("builtins._").valueText, "'kept'");
    evaluate("del builtins._");
    output.out.clear();
    evaluate("5", {.wantValue = false, .echo = true});
    EXPECT_EQ(output.out, "5\n");
}

TEST_F(InterpreterTest, cutsLongValuesBetweenCharacters)
{
    EvalResult result = evaluate("'é' * 100_000");
    EXPECT_GT(result.valueText.size(), 65'530U);
    EXPECT_LE(result.valueText.size(), 65'536U);
    EXPECT_TRUE(result.valueText.ends_with("é"));
}

TEST_F(InterpreterTest, tellsWhyAValueHasNoArrayForm)
{
    const std::pair<const char*, const char*> cases[] = {
        {"object()", "a value of type 'object' has no array form"},
        {"import decimal\n[1, {2: object()}]", "a value of type 'object' has no array form"},
        {"'\\ud83d\\ude00'", "a str with the halves of a character one after the other has no array form"},
        {"[range(1 << 14_284)]", "an int of 14285 bits is too long to be told"},
        {"a = []; a.append(a); a", "a container that holds itself has no array form"},
        {"b = []\nfor _ in range(70): b = [b]\nb", "containers nest deeper than 64 levels"},
        {"memoryview(b'abcd').cast('c').cast('B')[:2].tobytes and __import__('array').array('u', 'x')",
         "elements of format 'w' (in a value of type 'array.array') have no array form"},
    };
    for (const auto& [code, reason] : cases) {
        EvalResult result = evaluate(code);
        EXPECT_TRUE(result.hasValue) << code;
        EXPECT_EQ(result.value, nullptr) << code;
        EXPECT_EQ(result.conversionError, reason) << code;
    }
}

TEST_F(InterpreterTest, readsBuffersThatLeaveThingsOut)
{
    const std::pair<const char*, matrix::ArrayPtr> told[] = {
        {"(ctypes.c_int * 3)(1, 2, 3)", matrix::create({1, 3}, std::vector<std::int32_t>{1, 2, 3})},
        {"((ctypes.c_int16 * 3) * 2)((1, 2, 3), (4, 5, 6))",
         matrix::create({2, 3}, std::vector<std::int16_t>{1, 4, 2, 5, 3, 6})},
        {"(ctypes.c_double * 0)()", matrix::create({1, 0}, std::vector<double>{})},
        {"ctypes.c_int64(7)", matrix::createScalar(std::int64_t{7})},
        {"memoryview(b'')", matrix::create({1, 0}, std::vector<std::uint8_t>{})},
        {"memoryview(b'abcd')[::-2]", matrix::create({1, 2}, std::vector<std::uint8_t>{'d', 'b'})},
    };
    for (const auto& [code, array] : told) {
        const EvalResult result = evaluate(std::string("import ctypes\n") + code);
        ASSERT_TRUE(result.value) << code << ": " << result.conversionError;
        EXPECT_TRUE(matrix::identical(*result.value, *array)) << code;
    }
    // Scalars of dates offer a buffer without sizes or strides.
    for (const char* code : {"np.datetime64('2024-01-01')", "np.timedelta64(1, 'D')", "[np.datetime64('NaT'), 1]"})
        EXPECT_TRUE(evaluate(std::string("import numpy as np\n") + code).hasValue) << code;
    EXPECT_EQ(evaluate("np.broadcast_to(1.0, (10**5, 10**5))").conversionError,
              "an array of 10000000000 elements has no array form, only up to 10000000");
    EXPECT_EQ(evaluate("np.longdouble(1) / 3").conversionError, "a long double that is no double has no array form");
}

TEST_F(InterpreterTest, describesErrorsAsTheLanguageDoes)
{
    evaluate("def inner(n):\n    return 1 / n\n");
    ScriptError error = errorOf("x = 0\ninner(x)\n");
    EXPECT_EQ(error.type(), "ZeroDivisionError");
    EXPECT_STREQ(error.what(), "division by zero");
    EXPECT_EQ(error.traceback(), "Traceback (most recent call last):\n"
                                 "  File \"<remote>\", line 2, in <module>\n"
                                 "    inner(x)\n"
                                 "  File \"<remote>\", line 2, in inner\n"
                                 "    return 1 / n\n"
                                 "           ~~^~~\n"
                                 "ZeroDivisionError: division by zero\n");

    error = errorOf("x = = 1\n", {.fileName = "<cell>"});
    EXPECT_EQ(error.type(), "SyntaxError");
    EXPECT_STREQ(error.what(), "invalid syntax (<cell>, line 1)");
    EXPECT_EQ(error.traceback(), "  File \"<cell>\", line 1\n"
                                 "    x = = 1\n"
                                 "        ^\n"
                                 "SyntaxError: invalid syntax\n");

    const std::pair<const char*, const char*> types[] = {
        {"raise SystemExit(3)", "SystemExit"},
        {"exit()", "SystemExit"},
        {"raise KeyboardInterrupt", "KeyboardInterrupt"},
        {"input()", "EOFError"},
        {"import sys; sys.stdin.buffer.read(1)[0]", "IndexError"},
        {"def r(): r()\nr()", "RecursionError"},
        {"[0] * (1 << 62)", "MemoryError"},
        {"return 1", "SyntaxError"},
        {"("
         "((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((("
         "(((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((((("
         "(",
         "SyntaxError"},
        {"import json; json.loads('{')", "json.decoder.JSONDecodeError"},
        {"class E(Exception):\n  def __str__(self): raise ValueError\nraise E", "E"},
        {"class R:\n  def __repr__(self): raise LookupError('no')\nR()", "LookupError"},
    };
    for (const auto& [code, type] : types)
        EXPECT_EQ(errorOf(code).type(), type) << code;
    EXPECT_EQ(errorOf(std::string("x = '\0'", 7)).type(), "ValueError");
    EXPECT_EQ(evaluate("1 + 1").valueText, "2");

    error = errorOf("try:\n    1 / 0\nexcept Exception:\n    raise KeyError('k')");
    EXPECT_NE(error.traceback().find("During handling of the above exception"), std::string::npos);
    EXPECT_EQ(error.traceback().find("<vendra>"), std::string::npos);
}

TEST_F(InterpreterTest, sendsOutputOfItsThreads)
{
    evaluate("import sys, threading\n"
             "print('one', flush=True); print('two', file=sys.stderr); print('three', end='')\n"
             "sys.stdout.buffer.write('é'.encode())\n"
             "t = threading.Thread(target=lambda: print('elsewhere', end='')); t.start(); t.join()\n"
             "sys.stderr.write('\\ud800|')\n"
             "print(sys.stdout.isatty(), sys.stdout.encoding, sys.stdout.writable(), sys.stdout.fileno())\n");
    EXPECT_EQ(output.all, "one\ntwo\nelsewherethreeé\xEF\xBF\xBD|False utf-8 True 1\n");
    EXPECT_EQ(output.err, "two\n\xEF\xBF\xBD|");

    Recorder late;
    output = {};
    EXPECT_EQ(errorOf("print('half a line', end=''); 1/0").type(), "ZeroDivisionError");
    EXPECT_EQ(output.out, "half a line");
    EXPECT_EQ(errorOf("print(1); sys.stdout.write(b'no')").type(), "TypeError");
}

TEST_F(InterpreterTest, muchOutputIsQuickAndWhole)
{
    auto begin = std::chrono::steady_clock::now();
    evaluate("for i in range(100_000): print(i)");
    EXPECT_EQ(output.out.size(), 588'890U);
    EXPECT_LE(output.pieces, 100'000U);
    output = {};
    evaluate("print('x' * 10_000_000)");
    EXPECT_EQ(output.out.size(), 10'000'001U);
    output = {};
    evaluate("import sys\nfor i in range(1_000_000): _ = sys.stdout.write('y')");
    EXPECT_EQ(output.out.size(), 1'000'000U);
    EXPECT_LT(output.pieces, 200U);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
}

TEST_F(InterpreterTest, callsFunctionsByName)
{
    evaluate("def pair(a, b): return a + b, a * b, 'more'\ndef none(): pass");
    use([&](Interpreter& interpreter) {
        auto call = [&](const char* name, std::size_t results, auto... values) {
            std::vector<matrix::ArrayPtr> arguments;
            (arguments.push_back(matrix::createScalar(values)), ...);
            return interpreter.call(name, std::move(arguments), results, output);
        };
        auto two = call("pair", 2, std::int64_t{3}, std::int64_t{4});
        ASSERT_EQ(two.size(), 2U);
        EXPECT_TRUE(matrix::identical(*two[0], *matrix::createScalar(std::int64_t{7})));
        EXPECT_TRUE(matrix::identical(*two[1], *matrix::createScalar(std::int64_t{12})));
        EXPECT_TRUE(matrix::identical(*call("math.sqrt", 1, 16.0)[0], *matrix::createScalar(4.0)));
        EXPECT_TRUE(matrix::identical(*call("none", 1)[0], *matrix::createEmpty()));
        EXPECT_TRUE(call("print", 0, 5.0).empty());
        EXPECT_EQ(output.out, "5.0\n");

        const std::tuple<const char*, std::size_t, const char*> wrong[] = {{"no_such", 1, "NameError"},
                                                                           {"math.no_such", 1, "AttributeError"},
                                                                           {"none", 2, "ValueError"},
                                                                           {"pair.__name__", 1, "TypeError"},
                                                                           {"", 1, "NameError"}};
        for (const auto& [name, results, type] : wrong) {
            try {
                call(name, results);
                ADD_FAILURE() << name << " was called";
            } catch (const ScriptError& error) {
                EXPECT_EQ(error.type(), type) << name;
            }
        }
    });
}

TEST_F(InterpreterTest, getsSetsListsAndClearsVariables)
{
    use([&](Interpreter& interpreter) {
        interpreter.setVariable("größe", *matrix::createScalar(2.5));
        EXPECT_TRUE(matrix::identical(*interpreter.getVariable("größe"), *matrix::createScalar(2.5)));
        EXPECT_EQ(interpreter.getVariable("unknown"), nullptr);
        EXPECT_TRUE(interpreter.clearVariable("größe"));
        EXPECT_FALSE(interpreter.clearVariable("größe"));
        for (const char* name : {"", "1a", "a b", "class", "a.b", "None"})
            EXPECT_THROW(interpreter.setVariable(name, *matrix::createEmpty()), std::invalid_argument) << name;
    });
    evaluate("import os\n_private = 1\nnumbers = list(range(1000))\ntext = 'a' * 500\nd = {'k': [1]}\n"
             "big = 10 ** 10000\nb = b'123'\n"
             "class Loud:\n    def __repr__(self): raise SystemExit\n    __str__ = __len__ = __repr__\nl = Loud()\n"
             "nested = [l, 1]\nm = memoryview(bytes(6)).cast('B', [2, 3])\n");
    EXPECT_THROW(use([](Interpreter& interpreter) { interpreter.getVariable("l"); }), ScriptError);
    std::map<std::string, std::string> shown;
    use([&](Interpreter& interpreter) {
        for (const auto& info : interpreter.listVariables()) {
            EXPECT_LE(info.preview.size(), 200U) << info.name;
            std::string size;
            for (std::size_t s : info.size)
                size += std::to_string(s) + " ";
            shown[info.name] = info.type + " [" + size + "] " + info.preview.substr(0, 12);
        }
    });
    EXPECT_EQ(shown, (std::map<std::string, std::string>{{"Loud", "type [] <class 'Loud"},
                                                         {"b", "bytes [3 ] b'123'"},
                                                         {"big", "int [] int of 33220"},
                                                         {"d", "dict [1 ] {'k': list o"},
                                                         {"l", "Loud [] <__main__.Lo"},
                                                         {"m", "memoryview [2 3 ] memoryview"},
                                                         {"nested", "list [2 ] [<__main__.L"},
                                                         {"numbers", "list [1000 ] [0, 1, 2, 3,"},
                                                         {"text", "str [500 ] 'aaaaaaaaaaa"}}));
}

TEST_F(InterpreterTest, completesNamesAndAttributes)
{
    evaluate("class Box: pass\nbox = Box()\nbox.width = 1\nbox.weight = 2\nöl = 1");
    struct Case
    {
        const char* text;
        std::size_t from;
        std::vector<std::string> candidates;
    };
    for (const Case& c : {Case{"y = box.w", 8, {"weight", "width"}}, Case{"isinst", 0, {"isinstance"}},
                          Case{"print(öl.nume", 10, {"numerator"}}, Case{"ö", 0, {"öl"}}, Case{"nosuch.x", 7, {}},
                          Case{"box.width.real_", 10, {}}, Case{"f(1).re", 5, {}}, Case{"lamb", 0, {"lambda"}},
                          Case{"box.__cl", 4, {"__class__"}}, Case{"12", 0, {}}, Case{"", 0, {}}}) {
        use([&](Interpreter& interpreter) {
            auto found = interpreter.complete(std::string(c.text) + " tail", std::string_view(c.text).size());
            EXPECT_EQ(found.candidates, c.candidates) << c.text;
            EXPECT_EQ(found.replaceFrom, c.from) << c.text;
            EXPECT_THROW(interpreter.complete("ab", 3), std::invalid_argument);
        });
    }
}

TEST_F(InterpreterTest, savesWholeFilesAndLoadsThem)
{
    auto folder = std::filesystem::temp_directory_path() / ("vendra_test." + std::to_string(::getpid()));
    std::filesystem::create_directory(folder);
    std::string file = folder / "saved";
    evaluate("shared = [1, 2]\nalso = [shared, shared]\ndef own(): pass\nopen_file = open('/dev/null')\n"
             "class Own: pass\nthing = Own()");
    use([&](Interpreter& interpreter) {
        using Names = std::vector<std::string>;
        EXPECT_EQ(interpreter.saveWorkspace(file, {}), (Names{"Own", "open_file", "own", "thing"}));
        EXPECT_EQ(interpreter.saveWorkspace(file + "2", {"shared", "missing"}), Names{"missing"});
        for (const char* name : {"shared", "also"})
            interpreter.clearVariable(name);
        EXPECT_EQ(interpreter.loadWorkspace(file), (Names{"also", "shared"}));
        EXPECT_EQ(interpreter.loadWorkspace(file + "2"), Names{"shared"});
        EXPECT_THROW(interpreter.saveWorkspace((folder / "none" / "x").string(), {}), ScriptError);
        EXPECT_THROW(interpreter.loadWorkspace((folder / "none").string()), ScriptError);
        std::ofstream(folder / "broken") << "no pickle";
        EXPECT_THROW(interpreter.loadWorkspace((folder / "broken").string()), ScriptError);
    });
    EXPECT_EQ(evaluate("also[0] is also[1] and also == [[1, 2], [1, 2]]").valueText, "True");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 3); // no temporary file is left
    std::filesystem::remove_all(folder);
}

TEST_F(InterpreterTest, hasASearchPathAndACurrentFolder)
{
    use([&](Interpreter& interpreter) {
        auto path = interpreter.searchPath();
        auto longer = path;
        longer.push_back("/somewhere");
        interpreter.setSearchPath(longer);
        EXPECT_EQ(interpreter.searchPath(), longer);
        interpreter.setSearchPath(path);

        std::string folder = interpreter.currentFolder();
        interpreter.setCurrentFolder("/");
        EXPECT_EQ(interpreter.currentFolder(), "/");
        EXPECT_THROW(interpreter.setCurrentFolder("/no/such/folder"), ScriptError);
        interpreter.setCurrentFolder(folder);
    });
}

TEST_F(InterpreterTest, anInterruptBreaksALoopAndNothingElse)
{
    std::string type;
    rqe::TaskId looping = engine->post(std::make_unique<FunctionTask>([&](Interpreter& interpreter) {
        try {
            interpreter.evaluate("while True: pass", {}, output);
        } catch (const ScriptError& error) {
            type = error.type();
        }
    }));
    std::thread client([&] {
        while (!engine->interrupt(looping))
            std::this_thread::yield();
    });
    EXPECT_TRUE(engine->runOne());
    client.join();
    EXPECT_EQ(type, "KeyboardInterrupt");

    // Interrupted with nothing to break: the interrupt must not come out of what runs next.
    for (int i = 0; i < 200; ++i) {
        engine->post(std::make_unique<FunctionTask>(
            [&](Interpreter&) { std::thread([&] { EXPECT_TRUE(engine->interrupt()); }).join(); }));
        engine->runOne();
        EXPECT_EQ(evaluate("sum(range(100))").valueText, "4950");
    }
}

TEST_F(InterpreterTest, anInterruptReachesCodeThatGaveTheSignalBack)
{
    evaluate("import signal; kept = signal.getsignal(signal.SIGINT)");
    std::thread client;
    std::string type;
    rqe::TaskId looping = engine->post(std::make_unique<FunctionTask>([&](Interpreter& interpreter) {
        try {
            interpreter.evaluate("signal.signal(signal.SIGINT, signal.SIG_DFL)\nwhile True: pass", {}, output);
        } catch (const ScriptError& error) {
            type = error.type();
        }
    }));
    client = std::thread([&] {
        while (!engine->interrupt(looping))
            std::this_thread::yield();
    });
    engine->runOne();
    client.join();
    EXPECT_EQ(type, "KeyboardInterrupt");
    EXPECT_EQ(evaluate("signal.getsignal(signal.SIGINT) is kept").valueText, "True");
}

} // namespace
