"""Scripts, the prompt and signals: what the host runs on its own account.

One of the files that make up the host's own part in the language: they share one namespace, and their frames never
show in a traceback.
"""

import _signal as signal  # signal itself takes long to load
import builtins
import functools
import os
import sys


def exit_status(error):
    code = error.code
    if code is None:
        return 0
    if isinstance(code, int):
        return code & 0xFF
    try:
        sys.stdout.flush()
        print(code, file=sys.stderr)
    except Exception:
        pass
    return 1


def _foreground(run):
    """What came of the host's own code: (leave, status)."""
    try:
        run()
    except SystemExit as error:
        return True, exit_status(error)
    except KeyboardInterrupt as error:
        show(error)
        return False, 130
    except BaseException as error:
        show(error)
        return False, 1
    return False, 0


def run_source(code, file_name):
    return _foreground(lambda: exec(compile(code, file_name, "exec", 0, True), workspace))


def run_file(path):
    if os.path.isdir(path) or _is_archive(path):
        return _foreground(lambda: _run_package(path))
    try:
        with open(path, "rb") as file:
            code = file.read()
    except OSError as error:
        shown = os.path.abspath(path)
        print(f"vendra: can't open file {shown!r}: [Errno {error.errno}] {error.strerror}", file=sys.stderr)
        return True, 2
    if not sys.flags.safe_path:
        sys.path.insert(0, os.path.dirname(os.path.realpath(path)))
    path = os.path.abspath(path)
    workspace["__file__"] = path
    workspace["__cached__"] = None
    return run_source(code, path)


def run_module(name):
    if not sys.flags.safe_path:
        sys.path.insert(0, os.getcwd())
    return _foreground(lambda: library("runpy")._run_module_as_main(name))


def run_startup():
    """What the user wants to have at every prompt; an error in it is shown, and the prompt comes all the same."""
    path = os.environ.get("PYTHONSTARTUP") if not sys.flags.ignore_environment else None
    if not path:
        return False, 0
    try:
        with open(path, "rb") as file:
            code = file.read()
    except OSError as error:
        print(f"vendra: PYTHONSTARTUP: can't open file {path!r}: {error.strerror}", file=sys.stderr)
        return False, 1
    return run_source(code, path)


def _is_archive(path):
    if not path.endswith((".zip", ".pyz")):
        return False
    return library("zipfile").is_zipfile(path)


def _run_package(path):
    runpy = library("runpy")
    sys.path.insert(0, path)
    runpy._run_module_as_main("__main__", False)


def prepare_interactive(set_prompts):
    if not sys.flags.safe_path:
        sys.path.insert(0, "")
    if set_prompts:
        sys.ps1, sys.ps2 = ">>> ", "... "


def prompt(continued):
    try:
        return str(getattr(sys, "ps2" if continued else "ps1"))
    except Exception:
        return "... " if continued else ">>> "


_compiler = None
_compiled = None


def _leaves(source):
    """The word alone means what it says, unless it is somebody's name for something else."""
    return source in ("exit", "quit") and source not in workspace and _is_quitter(builtins.__dict__.get(source))


def _is_quitter(value):
    return type(value).__module__ == "_sitebuiltins" and type(value).__name__ == "Quitter"


def compile_line(source):
    """None: more lines are needed; True: run_line may run it; False: it is wrong, and that was shown."""
    global _compiler, _compiled
    if _leaves(source):
        source += "()"
    if _compiler is None:
        _compiler = library("codeop").CommandCompiler()
    try:
        _compiled = _compiler(source, "<stdin>", "single")
    except (SyntaxError, OverflowError, ValueError, MemoryError) as error:
        error.__traceback__ = None
        show(error)
        return False
    return None if _compiled is None else True


def run_line():
    global _compiled
    code, _compiled = _compiled, None
    return _foreground(lambda: exec(code, workspace))


_DONT_WAIT = 2  # of Tcl_DoOneEvent
_MOST_EVENTS = 1_000
_tcl = None


def serve_windows():
    """Handles the events that wait for Tk, whose own hook would keep everybody else waiting until somebody types."""
    global _tcl
    if _tcl is None:
        tkinter = sys.modules.get("_tkinter")
        if tkinter is None:
            return
        _tcl = tkinter.create(None, "vendra", "Tk", False, False, False, False, None)  # its events are the thread's
    for _ in range(_MOST_EVENTS):
        if not _tcl.dooneevent(_DONT_WAIT):
            break


def start_connector():
    def run():
        import connector

        connector.start()

    return _foreground(run)


def install_signals(terminate, break_signal, break_requested):
    """Returns the function that sets the descriptor on which signals show."""
    for number in (signal.SIGTERM, signal.SIGHUP):
        if signal.getsignal(number) == signal.SIG_DFL:
            signal.signal(number, terminate)

    def interrupt(number, frame):
        if break_requested():
            raise KeyboardInterrupt

    signal.signal(break_signal, interrupt)
    return functools.partial(signal.set_wakeup_fd, warn_on_full_buffer=False)


def remove_debuggers_handler():
    """pdb takes the keyboard's interrupt when its "continue" ends, and keeps it."""
    bdb = sys.modules["bdb"]
    if isinstance(getattr(signal.getsignal(signal.SIGINT), "__self__", None), bdb.Bdb):
        signal.signal(signal.SIGINT, signal.default_int_handler)


def let_next_signal_kill():
    for number in (signal.SIGTERM, signal.SIGHUP, signal.SIGINT):
        signal.signal(number, signal.SIG_DFL)


def end_threads():
    threading = sys.modules.get("threading")
    if threading is not None:
        threading._shutdown()


def run_exit_functions():
    import atexit

    atexit._run_exitfuncs()
