"""Writes the files of support/, compiled, into a C++ source: compiling them takes longer than the language takes to start.

Usage: compile_support.py OUTPUT BUS_FILE SUPPORT_FILE... (in the order in which they run)
"""

import importlib.util
import marshal
import sys


def array_of(path, shown):
    with open(path, encoding="utf-8") as file:
        code = marshal.dumps(compile(file.read(), shown, "exec", dont_inherit=True))
    lines = [",".join(str(byte) for byte in code[at : at + 40]) for at in range(0, len(code), 40)]
    return len(code), "{" + ",\n".join(lines) + "}"


def main():
    output, bus, *support = sys.argv[1:]
    parts = []
    names = []
    for name, path, shown in [("kBus", bus, "<connector>")] + [(f"kPart{i}", path, "<vendra>") for i, path in
                                                               enumerate(support)]:
        size, text = array_of(path, shown)
        parts.append(f"constexpr unsigned char {name}[{size}] = {text};\n")
        names.append(f"{{{name}, sizeof {name}}}")
    magic = int.from_bytes(importlib.util.MAGIC_NUMBER, "little")
    with open(output, "w", encoding="ascii") as file:
        file.write('#include "vendra/python/Support.h"\n\nnamespace vendra::python {\n\nnamespace {\n\n' + "\n".join(parts)
                   + "\n} // namespace\n\n"
                   + f"const std::array<CompiledText, kSupportFiles> kSupport = {{{{{', '.join(names[1:])}}}}};\n\n"
                   + f"const CompiledText kBusSupport = {names[0]};\n\nconst long kSupportMagic = {magic};\n\n"
                   + "} // namespace vendra::python\n")


if __name__ == "__main__":
    main()
