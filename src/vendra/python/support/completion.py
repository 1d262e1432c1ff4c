"""What may stand at the end of a piece of code: names, attributes, names of arguments, files.

One of the files that make up the host's own part in the language: they share one namespace, and their frames never
show in a traceback. Nobody's code runs: attributes are looked up in the dictionaries where they are, and what only a
call could tell (a property's value, what `__getattr__` makes up) is unknown.
"""

import _ast
import builtins
import functools
import importlib.machinery
import itertools
import keyword
import os
import sys
import types

_MOST_CODE = 65_536  # characters in front of the cursor
_MOST_FILES = 10_000  # entries of a folder that are read
_MOST_KEYS = 1_000
_MOST_SOURCE = 512 << 10  # of a module that is not loaded
_MODULE_ENDINGS = {ending.removeprefix(".") for ending in importlib.machinery.all_suffixes()}


@functools.cache
def _pattern(text):
    return library("re").compile(text)


_PIECE = r"""(?x)(?P<comment>\#[^\n]*)
      | (?P<string>[rRbBuUfF]{0,2}(?:\"{3}|'{3}|"|'))
      | (?P<word>\w+)
      | (?P<open>[(\[{])
      | (?P<close>[)\]}])
      | (?P<comma>,)
      | (?:[^\w\#"'()\[\]{},]+)"""
_PATH = r"[\w.]*\Z"
_IMPORT = r"""(?x)(?:^|[\n;])[ \t]*(?:
        import\s+(?:[\w.]+(?:\s+as\s+\w+)?\s*,\s*)*(?P<module>[\w.]*)
      | from\s+(?P<package>[\w.]+)\s+(?P<import>import)\s+\(?(?:\s*\w+(?:\s+as\s+\w+)?\s*,)*\s*(?P<name>\w*)
      | from\s+(?P<from>[\w.]*)
    )\Z"""
_DEFINES = r"\b(?:def|class)\s+\Z"
_SIGNATURE_PART = r"(\*{0,2}|\$?)(\w+)(?:=(?:[^,'\"()]|'[^']*'|\"[^\"]*\"|\([^)]*\))*)?|(/)"


def _end_of(quote):
    """The rest of a string up to its end; of one that cannot go over lines, up to the line's end."""
    rest = rf"(?s)(?:\\.|[^\\])*?{quote}" if len(quote) == 3 else rf"(?s)(?:\\.|[^\\\n])*?(?:{quote}|\n)"
    return _pattern(rest)


def _scan(code):
    """How the code ends: ("comment",), ("string", opening, where it begins, brackets) or ("code", brackets, the last
    string as (its prefix, where it ends)). Brackets are those that are open, each as [its character, its position, where
    its last argument begins]."""
    piece_at = _pattern(_PIECE).match
    position, brackets, last_string = 0, [], None
    while position < len(code):
        piece = piece_at(code, position)
        position, kind = piece.end(), piece.lastgroup
        if kind == "comment" and position == len(code):
            return ("comment",)
        if kind == "string":
            text = piece.group()
            prefix = text.rstrip("\"'")
            end = _end_of(text[len(prefix) :]).match(code, position)
            if end is None:
                return "string", text, position, brackets
            position = end.end()
            last_string = prefix.lower(), position
        elif kind == "open":
            brackets.append([piece.group(), piece.start(), position])
        elif kind == "close" and brackets:
            brackets.pop()
        elif kind == "comma" and brackets:
            brackets[-1][2] = position
    return "code", brackets, last_string


@_steady
def complete(before):
    """(text that a candidate replaces, candidates) at the end of `before`."""
    if len(before) > _MOST_CODE:
        raise ValueError(f"the code in front of the cursor has more than {_MOST_CODE} characters")
    state, *details = _scan(before)
    if state == "string":
        return _in_string(before, *details)
    if state == "comment":
        return "", []
    imported = _pattern(_IMPORT).search(before)
    if imported:
        return _imported(imported)
    path = _pattern(_PATH).search(before).group()
    head, dot, tail = path.rpartition(".")
    if dot:
        if not head:
            return tail, _matching(_member_names(_literal_before(before, details[1], tail)), tail)
        if not all(part.isidentifier() for part in head.split(".")):
            return tail, []
        return tail, _attributes(head.split("."), tail)
    if tail and tail[0].isdigit():
        return tail, []
    arguments = _arguments(before, details[0], tail)
    if not tail:
        return tail, arguments
    names = set(workspace) | set(builtins.__dict__) | set(keyword.kwlist)
    return tail, arguments + _matching(names, tail)


def _literal_before(before, last_string, tail):
    """The type of a text whose attribute is asked for; that of nothing where there is none."""
    if last_string is None or last_string[1] != len(before) - len(tail) - 1:
        return None
    return bytes if "b" in last_string[0] else str


def _in_string(before, opening, begin, brackets):
    """Keys of what the string is an index of, else files."""
    prefix, quote, content = opening.rstrip("\"'"), opening.lstrip("rRbBuUfF"), before[begin:]
    if brackets and brackets[-1][0] == "[" and not before[brackets[-1][1] + 1 : begin - len(opening)].strip():
        indexed = before[: brackets[-1][1]]
        path = _pattern(_PATH).search(indexed).group()
        if path and not prefix:
            return content, [key + quote + "]" for key in _keys(path.split("."), content)]
        if indexed.endswith((")", "]", "}", '"', "'")):
            return content, []
    return _files(prefix, content)


def _keys(path, content):
    """Texts that index what the path leads to and can be written as they are."""
    try:
        value = _meaning(path)
    except LookupError:
        return []
    if issubclass(type(value), dict):
        keys = itertools.islice(dict.keys(value), _MOST_KEYS)
    elif _is_frame(value):
        keys = value.columns[:_MOST_KEYS].tolist()
    else:
        return []
    return sorted(
        key for key in keys if type(key) is str and key.startswith(content) and key.isprintable() and not set(key) & set("\\'\"")
    )


def _imported(statement):
    """Modules, or what one has, in an import statement that ends here."""
    package, tail = statement["package"], statement["name"] or ""
    if statement["import"]:
        return tail, _matching(_names_of_module(package) | _modules_in(package), tail)
    package, _, tail = (statement["module"] or statement["from"] or "").rpartition(".")
    return tail, _matching(_modules_in(package), tail)


def _names_of_module(name):
    """What a module has: one that is loaded; of others what their source defines at its top."""
    module = sys.modules.get(name)
    if type(module) is types.ModuleType:
        return _member_names(module)
    for folder in _folders_of(name.rpartition(".")[0]):
        place = os.path.join(folder, name.rpartition(".")[2])
        for path in (place + ".py", os.path.join(place, "__init__.py")):
            try:
                if os.path.getsize(path) <= _MOST_SOURCE:
                    with open(path, "rb") as file:
                        return _defined_at_top(compile(file.read(), path, "exec", _ast.PyCF_ONLY_AST, True))
            except (OSError, SyntaxError, ValueError, RecursionError):
                continue
    return set()


def _defined_at_top(tree):
    names = set()
    for node in tree.body:
        if isinstance(node, (_ast.FunctionDef, _ast.AsyncFunctionDef, _ast.ClassDef)):
            names.add(node.name)
        elif isinstance(node, (_ast.Import, _ast.ImportFrom)):
            names.update((alias.asname or alias.name).partition(".")[0] for alias in node.names)
        elif isinstance(node, (_ast.Assign, _ast.AnnAssign)):
            targets = node.targets if isinstance(node, _ast.Assign) else [node.target]
            names.update(target.id for target in targets if isinstance(target, _ast.Name))
    return names - {"*"}


def _folders_of(package):
    """Where modules of the package lie; of the top ones for ""."""
    if not package:
        return [folder or "." for folder in sys.path if type(folder) is str]
    module = sys.modules.get(package)
    if type(module) is types.ModuleType:
        folders = module.__dict__.get("__path__")
        return [folder for folder in folders if type(folder) is str] if type(folders) is list else []
    parent, _, name = package.rpartition(".")
    return [os.path.join(folder, name) for folder in _folders_of(parent)]


def _modules_in(package):
    names = set() if package else set(sys.builtin_module_names) | set(sys.stdlib_module_names) | _loaded_at_top()
    for folder in _folders_of(package):
        try:
            with os.scandir(folder) as entries:
                for entry in itertools.islice(entries, _MOST_FILES):
                    name, dot, ending = entry.name.partition(".")
                    if name.isidentifier() and ((not dot and entry.is_dir()) or ending in _MODULE_ENDINGS):
                        names.add(name)
        except OSError:
            continue
    return names - {"__pycache__", "__init__"}


def _loaded_at_top():
    return {name for name in list(sys.modules) if type(name) is str and "." not in name}


def _matching(names, tail):
    """Names that begin with `tail`, private ones only when asked for."""
    tail = _as_compiled(tail)
    return sorted(
        name
        for name in names
        if type(name) is str and name.startswith(tail) and (tail.startswith("_") or not name.startswith("_"))
    )


def _attributes(path, tail):
    try:
        return _matching(_member_names(_meaning(path)), tail)
    except LookupError:
        return []


def _member_names(value):
    names = set()
    if type(value) is not types.ModuleType:
        for kind in _ancestors(value if issubclass(type(value), type) else type(value)):
            names.update(name for name in list(_names_in(kind)) if type(name) is str)
    attributes = _dict_of(value)
    if attributes is not None:  # its truth value could be a script's code
        names.update(name for name in list(dict.keys(attributes)) if type(name) is str)
    if _is_frame(value):
        names.update(name for name in value.columns[:1000].tolist() if type(name) is str and name.isidentifier())
    return names


def _as_compiled(name):
    """A name as the compiler spells it."""
    if name.isascii():
        return name
    return library("unicodedata").normalize("NFKC", name)


def _meaning(path):
    """What a dotted name leads to; LookupError when that is nothing, or nothing that is known without a call."""
    path = [_as_compiled(part) for part in path]
    found = workspace[path[0]] if path[0] in workspace else builtins.__dict__[path[0]]
    for part in path[1:]:
        found = _member(found, part)
    return found


def _member(value, name):
    if issubclass(type(value), type):
        for kind in _ancestors(value):
            if name in _names_in(kind):
                return _unwrapped(_names_in(kind)[name], value)
    found = _ABSENT
    for kind in _ancestors(type(value)):
        if name in _names_in(kind):
            found = _names_in(kind)[name]
            break
    if _is_any(type(found), _SAFE_DESCRIPTORS):
        try:
            return found.__get__(value)
        except AttributeError:
            raise LookupError(name) from None
    if found is _ABSENT and _is_frame(value) and name in value.columns[:_MOST_KEYS].tolist():
        return sys.modules["pandas"].Series  # whose members a column has
    attributes = _dict_of(value)
    if found is _ABSENT or type(found) is types.FunctionType:
        try:
            return _find(attributes or {}, name)
        except KeyError:
            if found is _ABSENT:
                raise
    if type(found) is types.FunctionType:
        return types.MethodType(found, value)
    return _unwrapped(found, type(value))


def _unwrapped(found, owner):
    if type(found) is staticmethod:
        return found.__func__
    if type(found) is classmethod and type(found.__func__) is types.FunctionType:
        return types.MethodType(found.__func__, owner)
    if type(found) is property or "__get__" in _defined_in(type(found)) and not _is_any(type(found), _PLAIN_MEMBERS):
        raise LookupError
    return found


_PLAIN_MEMBERS = (
    types.FunctionType,
    types.MethodDescriptorType,
    types.WrapperDescriptorType,
    types.BuiltinFunctionType,
    types.ClassMethodDescriptorType,
)


def _defined_in(kind):
    return {name for ancestor in _ancestors(kind)[:-1] for name in list(_names_in(ancestor))}


def _arguments(before, brackets, tail):
    """The "name=" of each argument that the call around the end of the code may name."""
    if not brackets or brackets[-1][0] != "(":
        return []
    _, bracket, argument = brackets[-1]
    if before[argument : len(before) - len(tail)].strip():
        return []
    path = _pattern(_PATH).search(before[:bracket]).group()
    if not path or _pattern(_DEFINES).search(before[: bracket - len(path)]):
        return []
    try:
        names = _argument_names(_meaning(path.split(".")))
    except LookupError:
        return []
    return [f"{name}=" for name in names if name.startswith(tail) and (tail or not name.startswith("_"))]


def _argument_names(function):
    skipped = 0
    if issubclass(type(function), type):
        try:
            function = _member(function, "__init__")
        except LookupError:
            return []
        skipped = 1
    elif type(function) is types.MethodType:
        function, skipped = function.__func__, 1
    if type(function) is types.FunctionType:
        code = function.__code__
        count = code.co_argcount + code.co_kwonlyargcount
        return code.co_varnames[max(skipped, code.co_posonlyargcount) : count]
    if _is_any(type(function), (types.BuiltinFunctionType, types.MethodDescriptorType)):
        return _signature_names(function.__text_signature__ or "")
    return []


def _signature_names(signature):
    names = []
    for stars, name, slash in _pattern(_SIGNATURE_PART).findall(signature):
        if slash:
            names.clear()  # what stands in front of it has no name for callers
        elif not stars:
            names.append(name)
    return names


def _files(prefix, content):
    """Files whose path the content of a string begins; folders end in a slash."""
    if ("\\" in content and "r" not in prefix.lower()) or "\n" in content:
        return "", []
    folder, tail = os.path.split(content)
    try:
        with os.scandir(os.path.expanduser(folder) or ".") as entries:
            found = [
                entry.name + ("/" if entry.is_dir() else "")
                for entry in itertools.islice(entries, _MOST_FILES)
                if entry.name.startswith(tail) and (tail.startswith(".") or not entry.name.startswith("."))
            ]
    except (OSError, ValueError):
        return tail, []
    return tail, sorted(name for name in found if name.isprintable() and not set(name) & set("\\'\""))
