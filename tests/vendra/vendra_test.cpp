// The host's executable as people and other programs run it.

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "vendra/Child.h"

using vendra_test::Child;
namespace fs = std::filesystem;

namespace {

class VendraTest : public testing::Test
{
protected:
    using Words = std::vector<std::string>;

    struct Ended
    {
        int status;
        std::string output;
        std::string errors;
    };

    void SetUp() override
    {
        std::string pattern = (fs::temp_directory_path() / "vendra_test.XXXXXX").string();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        folder = fs::canonical(pattern);
        environment = {{"HOME", folder.string()},
                       {"XDG_RUNTIME_DIR", folder.string()},
                       {"VENDRA_ROOT", TEST_ROOTS "/good"},
                       {"TERM", "vt100"},
                       {"LC_ALL", "C.UTF-8"}};
    }
    void TearDown() override { fs::remove_all(folder); }

    std::unique_ptr<Child> begin(Words words, Child::At at = Child::At::pipes)
    {
        words.insert(words.begin(), TEST_VENDRA);
        return std::make_unique<Child>(words, environment, at);
    }
    Ended run(const Words& words, const std::string& input = "")
    {
        auto child = begin(words);
        child->write(input);
        child->closeInput();
        int status = child->wait();
        return {status, child->output(), child->errors()};
    }
    std::string script(const std::string& name, const std::string& text)
    {
        std::ofstream(folder / name) << text;
        return folder / name;
    }

    fs::path folder;
    std::map<std::string, std::string> environment;
};

TEST_F(VendraTest, runsProgramsAsTheLanguageDoes)
{
    std::string args = script("args.py", "import sys\nprint(sys.argv[1:], __name__, sys.path[0], __file__)\n");
    fs::create_directory(folder / "app");
    script("app/__main__.py", "import helper; print(helper.x, __name__)");
    script("app/helper.py", "x = 'helped'");
    struct Case
    {
        Words words;
        std::string input;
        int status;
        std::string output;
    };
    const Case cases[] = {
        {{"-c", "import sys; print(sys.argv, repr(sys.path[0]))", "-i", "--connector", "x"},
         "",
         0,
         "['-c', '-i', '--connector', 'x'] ''\n"},
        {{"-cprint(7)"}, "", 0, "7\n"},
        {{args, "-c", "", "--help"}, "", 0, "['-c', '', '--help'] __main__ " + folder.string() + " " + args + "\n"},
        {{folder / "app"}, "", 0, "helped __main__\n"},
        {{}, "import sys\nprint(sys.argv)", 0, "['']\n"},
        {{"-", "a"}, "import sys\nprint(sys.argv)", 0, "['-', 'a']\n"},
        {{"-c", "import sys; sys.exit(7)"}, "", 7, ""},
        {{"-c", "import sys; sys.exit(256 + 9)"}, "", 9, ""},
        {{"-c", "raise SystemExit"}, "", 0, ""},
        {{"-c", "import atexit; atexit.register(print, 'at exit'); print('end')"}, "", 0, "end\nat exit\n"},
        {{"-c", "print(input())"}, "typed\n", 0, "typed\n"},
        {{"-i", "-c", "x = 5; raise SystemExit(3)"}, "x + 1\n", 0, ">>> 6\n>>> "},
        {{"-i"}, "if 1:\n  2\n\nexit(4)\n", 4, ">>> ... ... 2\n>>> "},
        {{"--version"}, "", 0, "vendra 1.0.0.0 (Python 3.11.2)\n"},
    };
    for (const Case& c : cases) {
        Ended ended = run(c.words, c.input);
        std::string shown = c.words.empty() ? "" : c.words[0];
        EXPECT_EQ(ended.status, c.status) << shown << ended.errors;
        EXPECT_EQ(ended.output, c.output) << shown << ended.errors;
    }
}

TEST_F(VendraTest, saysWhatWentWrong)
{
    std::string failing = script("failing.py", "def f():\n    1 / 0\nf()\n");
    struct Case
    {
        Words words;
        int status;
        std::string errors;
        bool whole;
    };
    const Case cases[] = {
        {{failing},
         1,
         "Traceback (most recent call last):\n  File \"" + failing + "\", line 3, in <module>\n    f()\n  File \"" +
             failing + "\", line 2, in f\n    1 / 0\n    ~~^~~\nZeroDivisionError: division by zero\n",
         true},
        {{"-c", "x = = 1"},
         1,
         "  File \"<string>\", line 1\n    x = = 1\n        ^\nSyntaxError: invalid syntax\n",
         true},
        {{"-c", "import sys; sys.exit('bye')"}, 1, "bye\n", true},
        {{"-c", "raise KeyboardInterrupt"}, 130, "KeyboardInterrupt\n", false},
        {{(folder / "no.py").string()},
         2,
         "vendra: can't open file '" + (folder / "no.py").string() + "': [Errno 2] No such file or directory\n",
         true},
        {{"--no-such-option"}, 2, "--no-such-option", false},
        {{"-c"}, 2, "-c needs the code", false},
        {{"-c", "import sys; sys.excepthook = lambda *a: print('hooked', file=sys.stderr); 1/0"}, 1, "hooked\n", true},
    };
    for (const Case& c : cases) {
        Ended ended = run(c.words);
        EXPECT_EQ(ended.status, c.status) << c.words.back();
        if (c.whole)
            EXPECT_EQ(ended.errors, c.errors) << c.words.back();
        else
            EXPECT_NE(ended.errors.find(c.errors), std::string::npos) << ended.errors;
    }
}

TEST_F(VendraTest, isTheSystemsPythonWhateverTheSurroundings)
{
    fs::create_directory(folder / "bin");
    script("bin/python3", "#!/bin/sh\nexit 1\n");
    ::chmod((folder / "bin/python3").c_str(), 0755);
    environment["PATH"] = (folder / "bin").string() + ":/usr/bin";
    environment["PYTHONHOME"] = "/no/such/home";
    Ended ended = run({"-c", "import sys, json, decimal; print(sys.executable, sys.prefix, json.__file__)"});
    EXPECT_EQ(ended.output, "/usr/bin/python3 /usr /usr/lib/python3.11/json/__init__.py\n") << ended.errors;
}

TEST_F(VendraTest, takesWhatAnActivatedEnvironmentHas)
{
    const auto made = folder / "env";
    ASSERT_EQ(std::system(("/usr/bin/python3 -m venv --without-pip " + made.string()).c_str()), 0);
    script("env/lib/python3.11/site-packages/only_here.py", "name = 'mine'\n");
    environment["VIRTUAL_ENV"] = made.string();
    const Words show = {"-c", "import sys, only_here; print(only_here.name, sys.prefix, sys.base_prefix)"};
    Ended ended = run(show);
    EXPECT_EQ(ended.output, "mine " + made.string() + " /usr\n") << ended.errors;
    ended =
        run({"-c", "import subprocess, sys; subprocess.run([sys.executable, '-c', 'import only_here'], check=True)"});
    EXPECT_EQ(ended.status, 0) << ended.errors;

    fs::remove_all(made / "lib" / "python3.11"); // of another version
    ended = run({"-c", "import sys; print(sys.prefix)"});
    EXPECT_EQ(ended.output, "/usr\n");
    EXPECT_EQ(ended.errors,
              "vendra: VIRTUAL_ENV: " + made.string() + " is no environment for Python 3.11, and left aside.\n");
}

TEST_F(VendraTest, runsModules)
{
    environment["PYTHONPATH"] = folder.string();
    script("tool.py", "import sys\nif __name__ == '__main__':\n    print(sys.argv, sys.path[0])\n    sys.exit(3)\n");
    Ended ended = run({"-m", "tool", "-x", "--connector"});
    EXPECT_EQ(ended.status, 3);
    EXPECT_EQ(ended.output,
              "['" + (folder / "tool.py").string() + "', '-x', '--connector'] " + fs::current_path().string() + "\n")
        << ended.errors;
    ended = run({"-mno_such_module"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_NE(ended.errors.find("No module named no_such_module"), std::string::npos) << ended.errors;
    EXPECT_NE(run({"-m"}).errors.find("-m needs the name of a module"), std::string::npos);
}

TEST_F(VendraTest, thePromptBeginsAndEndsAsUsersAreUsedTo)
{
    environment["PYTHONSTARTUP"] = script("startup.py", "ready = 'from startup'\n1 / 0\n");
    {
        auto child = begin({}, Child::At::terminal);
        EXPECT_TRUE(child->expect("ZeroDivisionError"));
        EXPECT_TRUE(child->expect(">>> "));
        child->write("ready\r");
        EXPECT_TRUE(child->expect("'from startup'"));
        child->write("exit\r");
        EXPECT_EQ(child->wait(), 0);
    }
    environment["PYTHONSTARTUP"] = "/no/such/startup.py";
    auto child = begin({}, Child::At::terminal);
    EXPECT_TRUE(child->expect("vendra: PYTHONSTARTUP: can't open file '/no/such/startup.py'"));
    EXPECT_TRUE(child->expect(">>> "));
    child->write("quit = 'a name like any other'\r");
    EXPECT_TRUE(child->expect(">>> "));
    child->write("quit\r");
    EXPECT_TRUE(child->expect("'a name like any other'"));
    child->write("exit(4)\r");
    EXPECT_EQ(child->wait(), 4);
    EXPECT_EQ(run({"-c", "print('ready' in globals())"}).output, "False\n") << "only a prompt begins with it";
}

TEST_F(VendraTest, windowsAreServedWhileThePromptWaits)
{
    auto child = begin({}, Child::At::terminal);
    EXPECT_TRUE(child->expect(">>> "));
    child->write("import tkinter; tk = tkinter.Tcl().tk\r");
    EXPECT_TRUE(child->expect(">>> "));
    child->write("later = [tk.createtimerhandler(t, lambda t=t: print('tick', t)) for t in (60, 90)]\r");
    EXPECT_TRUE(child->expect("tick 60"));
    EXPECT_TRUE(child->expect("tick 90"));
    child->write("1 + 41\r");
    EXPECT_TRUE(child->expect("42"));
}

TEST_F(VendraTest, carriesValuesToBuiltinsAndBack)
{
    std::string code = script("round_trips.py", R"py(
import array, connector, decimal, math, sys
echo = connector.startBundle

class Numpy:
    """What a loaded numpy looks like to the host."""
    frombuffer = staticmethod(lambda data, kind: ("ndarray", kind, bytes(data)))

same = [None, True, False, 0, -1, 2**63 - 1, -2**63, 2**63, 2**64 - 1, 2**64, -2**70, 1.5, 2j, {1: 2, (3,): "b"},
        decimal.Decimal("2.50"), {1, "a"}, range(3), math.inf, "", "a", "text", "é€", "😀x",
        "\ud800", "a\0b", b"", b"x", b"\x00\xff", [], [1, "a", None], [[1], [[2.0]]], {}, {"a": 1, "ö": {"b": [True]}}]
for value in same:
    back = echo(value)
    assert back == value and type(back) is type(value), (value, back)
assert math.isnan(echo(math.nan)) and math.copysign(1, echo(-0.0)) == -1

class Index:
    def __index__(self): return 12
changed = [((1, 2), [1, 2]), (bytearray(b"xy"), b"xy"), (array.array("d", [1, 2]), [1.0, 2.0]),
           (array.array("f", [0.5]), 0.5), (array.array("b"), []), (array.array("Q", [2**64 - 1, 0]), [2**64 - 1, 0]),
           (Index(), 12), (memoryview(b"abcdef")[::2], b"ace"),
           (memoryview(b"abcdef")[::-1], b"fedcba"),
           (memoryview(bytes(range(6))).cast("B", [2, 3]), [[0, 1, 2], [3, 4, 5]]),
           (memoryview(bytes(range(8))).cast("B", [2, 2, 2]), [[[0, 1], [2, 3]], [[4, 5], [6, 7]]]),
           (memoryview(array.array("h", [-1, 2, 3, -4])).cast("B").cast("h", [2, 2]), [[-1, 2], [3, -4]]),
           (memoryview(b"\x01\x00").cast("?"), [True, False]), (memoryview(bytes(4)).cast("I", []), 0)]
for value, wanted in changed:
    back = echo(value)
    assert back == wanted and type(back) is type(wanted), (value, back)

def error(value):
    try: echo(value)
    except Exception as e: return f"{type(e).__name__}: {e}"
loop = {}; loop["self"] = [loop]
wide = []
for _ in range(60): wide = [wide, wide]
assert error(loop) == "ValueError: a container that holds itself has no array form", error(loop)
assert error(wide) == "ValueError: a container holds more than 2000000 values", error(wide)
assert error(10**9999) == "ValueError: an int of 33216 bits is too long to be told", error(10**9999)
assert error(print) == "TypeError: a value of type 'builtin_function_or_method' has no array form"

shaped = connector.printBundleProperties
assert shaped("char") == ["abc", "def"]
assert shaped("double") == [[1.0, 2.0, 3.0], [4.0, 5.0, 6.0]]
assert shaped("struct") == [{"f": 1.0}, {"f": None}]
assert shaped("cell") == [[None, None], [None, None]]
assert shaped("nothing") is None
try: shaped("deep"); assert False
except ValueError as e: assert "deeper than 64" in str(e)
sys.modules["numpy"] = Numpy
assert echo(array.array("i", [1, 2])) == ("ndarray", "int32", b"\1\0\0\0\2\0\0\0")
print("all fine")
)py");
    Ended ended = run({code});
    EXPECT_EQ(ended.output, "all fine\n") << ended.errors;
}

TEST_F(VendraTest, callsBuiltinsByTheConvention)
{
    Ended ended = run({"-c", R"py(
import connector
print(connector.VERSION, connector.BUILD_DATE)
print(connector.unloadService([1, 2]), connector.stop(), connector.listCommands(), connector.executeCommand("x", []))
for kind in "argument", "memory", "system", "runtime", "other":
    try: connector.stopBundle(kind)
    except Exception as e: print(type(e).__name__, e)
for call in (lambda: connector.start(1), lambda: connector.startBundle(), lambda: connector.executeCommand("x"),
             lambda: connector.startBundle(name="x")):
    try: call()
    except TypeError as e: print(e)
print([n for n in dir(connector) if n[0].islower()])
)py"});
    EXPECT_EQ(
        ended.output,
        "9.8.7.6 Aug  7 2018\n"
        "1 1 one cell 1 2 None [] x\n"
        "ValueError a wrong argument\nMemoryError \nFileNotFoundError [Errno 2] a file: No such file or directory\n"
        "RuntimeError no UTF-8: \xEF\xBF\xBD\nRuntimeError an error of an unknown kind\n"
        "start() takes 0 arguments (1 given)\nstartBundle() takes 1 argument (0 given)\n"
        "executeCommand() takes 2 arguments (1 given)\nconnector.startBundle() takes no keyword arguments\n"
        "['channel', 'end_session', 'executeCommand', 'listAllBundleNames', 'listAllServiceNames', 'listCommands', "
        "'loadAllServices', "
        "'loadService', 'printAllBundles', 'printAllServices', 'printBundleProperties', 'printBundleServices', "
        "'printServiceProperties', 'publish', 'reload', 'restartBundle', 'serve', 'sessions', 'setLogDestination', "
        "'setLogSpecification', 'start', 'startAllBundles', 'startBundle', 'stop', 'stopAllBundles', 'stopBundle', "
        "'subscribe', 'unloadAllServices', 'unloadService', 'unserve', 'unsubscribe']\n")
        << ended.errors;
}

TEST_F(VendraTest, refusesAModuleThatIsNotWhatItSays)
{
    const std::pair<const char*, const char*> cases[] = {
        {"none", "cannot open shared object file"},
        {"text", "The module cannot be loaded: "},
        {"signature", "has a builtin table with the signature 0x94075316 instead of 0x94075315."},
        {"reserved", "has a builtin table whose reserved field is 1 instead of 0."},
        {"count", "has 22 builtins instead of 23."},
        {"hole", "has no builtin at position 13 (listAllBundleNames)."},
        {"unended", "has a builtin table that does not end after 23 entries."},
        {"query", "does not export QueryVDFcnTable_libzkconnectorusvendrahost."},
        {"date", "libzkconnectorusvendrahost_build_date"},
    };
    fs::create_directories(folder / "text/bin/win64");
    script("text/bin/win64/libzkconnectorusvendrahost.so", "no library");
    for (const auto& [root, reason] : cases) {
        bool made = std::string(root) == "text" || std::string(root) == "none";
        environment["VENDRA_ROOT"] = made ? (folder / root).string() : std::string(TEST_ROOTS "/") + root;
        Ended ended = run({"-c", "try:\n  import connector\nexcept ImportError as e: print(e)"});
        EXPECT_NE(ended.output.find(reason), std::string::npos) << root << ": " << ended.output << ended.errors;
        EXPECT_NE(ended.output.find(environment["VENDRA_ROOT"] + "/bin/win64/libzkconnectorusvendrahost.so"),
                  std::string::npos)
            << ended.output;
    }
    EXPECT_EQ(run({"--connector", "-c", "print('not reached')"}).status, 1);
}

TEST_F(VendraTest, saysWhereTheConnectorIsAndServes)
{
    struct Case
    {
        int signal;
        int status;
    };
    environment["TEST_ANNOUNCES"] = "1";
    for (const Case& c : {Case{SIGTERM, 143}, Case{SIGINT, 130}, Case{SIGHUP, 129}}) {
        auto child = begin({"--connector", "-c",
                            "import connector, atexit\natexit.register(print, 'at exit')\n"
                            "connector.loadService('print(6 * 7)')\n"
                            "connector.restartBundle('while True: pass')\n"});
        EXPECT_TRUE(child->expect("Connector: http://127.0.0.1:1/\nToken file: " + folder.string() + "/vendra/" +
                                  std::to_string(child->pid()) + ".json\n"));
        EXPECT_TRUE(child->expect("finished 42\n\nfinished KeyboardInterrupt\n")) << child->output() << child->errors();
        child->signal(c.signal);
        EXPECT_EQ(child->wait(), c.status);
        EXPECT_TRUE(child->output().ends_with("at exit\n"));
        // Nobody listens there.
        EXPECT_TRUE(child->errors().starts_with(
            "vendra: no one-time address: the host at http://127.0.0.1:1/ cannot be asked: Connection refused"))
            << child->errors();
        EXPECT_TRUE(child->errors().ends_with(".\nhook ran\n")) << child->errors();
        EXPECT_EQ(child->errors().find("secret"), std::string::npos) << child->errors();
    }
    environment["TEST_SILENT"] = "1";
    Ended ended = run({"--connector", "-c", "exit(5)"});
    EXPECT_EQ(ended.status, 5);
    EXPECT_EQ(ended.errors, "vendra: the connector has announced no address.\nhook ran\n");
}

// What its threads start is stopped, too: they are part of the program, and nothing starts after the hooks.
TEST_F(VendraTest, threadsHaveTheConnectorToTheirEnd)
{
    const std::string program = "import atexit, connector, threading\n"
                                "def work():\n"
                                "  threading.main_thread().join()\n"
                                "  connector.start()\n"
                                "  print('started late')\n"
                                "threading.Thread(target=work).start()\n"
                                "atexit.register(lambda: print('at exit', connector.stop()))\n";
    Ended ended = run({"-c", program});
    EXPECT_EQ(ended.output, "started late\nat exit None\n");
    EXPECT_EQ(ended.errors, "hook ran\n");

    auto child = begin({"--connector", "-c",
                        "import atexit, connector\n"
                        "def end():\n"
                        "  print('stopped', connector.stop())\n"
                        "  connector.start()\n"
                        "atexit.register(end)\nprint('ready', flush=True)"});
    ASSERT_TRUE(child->expect("ready\n"));
    child->signal(SIGTERM);
    EXPECT_EQ(child->wait(), 143);
    EXPECT_TRUE(child->output().ends_with("stopped None\n")) << child->output();
    EXPECT_NE(child->errors().find("\nhook ran\n"), std::string::npos) << child->errors();
    EXPECT_TRUE(child->errors().ends_with("RuntimeError: The host is going down.\n")) << child->errors();
}

TEST_F(VendraTest, listsTheHostsThatRun)
{
    const std::string head = "PID  URL  STARTED\n";
    EXPECT_EQ(run({"--list"}).output, head);
    Ended ended = run({"--url"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.errors, "vendra: no host with a connector is running.\n");

    auto child = begin({"-c", "print('up', flush=True); input()"});
    ASSERT_TRUE(child->expect("up\n"));
    std::string pid = std::to_string(child->pid());
    fs::create_directory(folder / "vendra");
    const auto announce = [&](const std::string& name, const std::string& text) { script("vendra/" + name, text); };
    environment["TZ"] = "UTC";
    announce(pid + ".json", R"({"url":"http://127.0.0.1:1/","started":86399})");
    announce("1.json", R"({"url":"http://127.0.0.1:2/","startTicks":99999999999})"); // another process had the number
    announce("2147483647.json", R"({"url":"http://127.0.0.1:3/"})");
    announce("x.json", R"({"url":"http://127.0.0.1:4/"})");
    std::string number = pid;
    std::string label = "PID";
    number.resize(std::max(pid.size(), label.size()), ' ');
    label.resize(number.size(), ' ');
    EXPECT_EQ(run({"--list"}).output,
              label + "  URL                  STARTED\n" + number + "  http://127.0.0.1:1/  1970-01-01 23:59:59\n");
    EXPECT_EQ(run({"--list", "--json"}).output,
              R"([{"pid":)" + pid + R"(,"url":"http://127.0.0.1:1/","started":86399}])" + "\n");
    for (const char* text : {"", "{", "[]", R"({"url":3})", R"({"pid":1})", R"({"url":"u","started":"x"})"}) {
        announce(pid + ".json", text);
        EXPECT_EQ(run({"--list"}).status, 0) << text;
    }

    struct Case
    {
        Words words;
        int status;
        std::string errors;
    };
    const std::string ask = "vendra: the host at ";
    const std::string url = R"({"token":"secret","url":")";
    const std::pair<std::string, std::string> announced[] = {
        {R"({"url":"http://127.0.0.1:1/"})", "vendra: the host keeps its token to itself.\n"},
        {url + "http://127.0.0.1:1/\"}", ask + "http://127.0.0.1:1/ cannot be asked: Connection refused"},
        {url + "https://127.0.0.1:1/\"}", "vendra: the host announces no certificate.\n"},
        {url + "ftp://127.0.0.1:1/\"}", "vendra: the announced address ftp://127.0.0.1:1/ is none.\n"},
        {url + "http:///\"}", "vendra: the announced address http:/// is none.\n"},
    };
    for (const auto& [text, errors] : announced) {
        announce(pid + ".json", text);
        for (const Words& words : {Words{"--url"}, Words{"--url", pid}, Words{"--url=" + pid}}) {
            ended = run(words);
            EXPECT_EQ(ended.status, 1);
            EXPECT_TRUE(ended.errors.starts_with(errors)) << ended.errors;
            EXPECT_EQ(ended.errors.find("secret"), std::string::npos) << ended.errors;
        }
    }
    const Case cases[] = {
        {{"--url", "1"}, 1, "vendra: no host with a connector is running as process 1.\n"},
        {{"--url=x"}, 2, "\"x\" is no process number"},
        {{"--url", "99999999999"}, 2, "is no process number"},
        {{"--url", "x"}, 2, "stand alone"},
        {{"--list", "--url"}, 2, "stand alone"},
        {{"--list", "-c", "1"}, 2, "stand alone"},
        {{"--list", "--open"}, 2, "stand alone"},
        {{"--json"}, 2, "--json goes with --list"},
        {{"--port", "65536"}, 2, "--port"},
        {{"--port", "8o"}, 2, "--port"},
        {{"--port"}, 2, "--port"},
    };
    for (const Case& c : cases) {
        ended = run(c.words);
        EXPECT_EQ(ended.status, c.status) << c.words.back();
        EXPECT_NE(ended.errors.find(c.errors), std::string::npos) << ended.errors;
    }
}

TEST_F(VendraTest, hostsAreNotLookedForWhereOthersMayWrite)
{
    const auto runtime = folder / "vendra";
    fs::create_directory(folder / "elsewhere");
    fs::create_directory_symlink(folder / "elsewhere", runtime);
    Ended ended = run({"--list"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.errors, "vendra: hosts are not looked for: " + runtime.string() + " is not a folder.\n");
    fs::remove(runtime);
    fs::create_directory(runtime);
    fs::permissions(runtime, fs::perms::all);
    EXPECT_EQ(run({"--url"}).errors,
              "vendra: hosts are not looked for: " + runtime.string() + " can be written by others.\n");
}

TEST_F(VendraTest, aSignalEndsARunningProgramInOrder)
{
    auto child =
        begin({"-c", "import connector; connector.start()\ntry:\n  print('runs', flush=True)\n  while True: pass\n"
                     "finally: print('finally')"});
    EXPECT_TRUE(child->expect("runs\n"));
    child->signal(SIGTERM);
    EXPECT_EQ(child->wait(), 143);
    EXPECT_EQ(child->output(), "runs\nfinally\n");
    EXPECT_EQ(child->errors(), "hook ran\n");

    child =
        begin({"--connector", "-c",
               "import connector, os\nown = os.dup(1)\n"
               "connector.loadService('os.write(own, b\"1\\\\n\")\\nwhile True: pass')\nconnector.loadService('2')"});
    EXPECT_TRUE(child->expect("1\n"));
    child->signal(SIGTERM);
    EXPECT_EQ(child->wait(), 143);
    EXPECT_TRUE(child->errors().ends_with("\nabandoned\nhook ran\n")) << child->errors();

    child = begin({"-c", "print('runs', flush=True)\nwhile True: pass"});
    EXPECT_TRUE(child->expect("runs\n"));
    child->signal(SIGINT);
    EXPECT_EQ(child->wait(), 130);
}

TEST_F(VendraTest, hasAPromptAtATerminal)
{
    auto child = begin({}, Child::At::terminal);
    EXPECT_TRUE(child->expect(">>> "));
    child->write("import connector; connector.start()\r");
    EXPECT_TRUE(child->expect(">>> "));
    child->write("def double(x):\r");
    EXPECT_TRUE(child->expect("... "));
    child->write("\treturn 2 * x\r"); // a tab at the start of a line indents
    EXPECT_TRUE(child->expect("... "));
    child->write("\r");
    EXPECT_TRUE(child->expect(">>> "));
    child->write("dou\t(2100000 + 5)\r");
    EXPECT_TRUE(child->expect("4200010"));
    EXPECT_TRUE(child->expect(">>> "));
    child->write("_ + 1\r");
    EXPECT_TRUE(child->expect("4200011"));
    EXPECT_TRUE(child->expect(">>> "));

    // Ctrl-C gives up the line, and a loop.
    child->write("unfinished('");
    EXPECT_TRUE(child->expect("unfinished('"));
    child->write("\x03");
    EXPECT_TRUE(child->expect("KeyboardInterrupt"));
    EXPECT_TRUE(child->expect(">>> "));
    child->write("print('lo' + 'op') or any(0 for _ in iter(int, 1))\r");
    EXPECT_TRUE(child->expect("loop"));
    child->write("\x03");
    EXPECT_TRUE(child->expect("KeyboardInterrupt"));
    EXPECT_TRUE(child->expect(">>> "));

    // A task runs while a line is being typed, and leaves the line alone.
    child->write("connector.loadService('print(99); remote = 4100')\r");
    EXPECT_TRUE(child->expect(">>> "));
    child->write("remote + 23, connector.listAllServiceNames()");
    child->write("\r");
    EXPECT_TRUE(child->expect("(4123, ['99\\n'])"));
    EXPECT_TRUE(child->expect(">>> "));
    child->write("input('name? ')\r");
    EXPECT_TRUE(child->expect("\nname? "));
    child->write("ann\r");
    EXPECT_TRUE(child->expect("'ann'"));
    EXPECT_TRUE(child->expect(">>> "));
    child->write("\x04");
    EXPECT_EQ(child->wait(), 0) << child->output();
    EXPECT_NE(child->output().find("hook ran"), std::string::npos);

    // The next session remembers.
    child = begin({}, Child::At::terminal);
    EXPECT_TRUE(child->expect(">>> "));
    child->write("\x10\x10"); // Ctrl-P twice
    EXPECT_TRUE(child->expect("remote + 23"));
    child->signal(SIGTERM);
    EXPECT_EQ(child->wait(), 143);
    struct stat info = {};
    ASSERT_EQ(::stat((folder / ".vendra_history").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600U);
}

} // namespace
