"""Checks that the undefined symbols of a build exist in the C library of a phone."""
import re
import subprocess

from .readers import lines
from .report import complain

API_LEVEL = 34


def nm(option, file):
    run = subprocess.run(["nm", option, str(file)], capture_output=True, text=True)
    if run.returncode != 0:
        complain(file, "nm cannot read it")
    return {words[-1].split("@")[0] for words in map(str.split, run.stdout.splitlines())
            if len(words) >= 2}


def closed_functions(root):
    """Returns the functions that the headers of the closed libraries declare."""
    headers = (root / "src/platform").glob("*.h")
    return set(re.findall(r"\b(\w+)\(", " ".join(h.read_text() for h in headers)))


def check_symbols(root, names):
    listed = "android/bionic_symbols.txt"
    section, level, phone_name = "", {}, {}
    for words in lines(root / listed):
        if words[0].startswith("["):
            section = words[0]
        elif section == "[names]":
            phone_name[words[0]] = words[1]
        else:
            level[words[0]] = int(words[1]) if len(words) > 1 else 21
    closed = closed_functions(root)
    for name in sorted(names):
        # C++ names, and functions of the compiler's runtime for sanitizers, coverage and atomics.
        if re.match(r"_Z|__(asan|ubsan|tsan|lsan|sanitizer|sancov|llvm|gcov|aarch64)_", name):
            continue
        name = phone_name.get(name, name)
        if name not in level and name not in closed:
            complain(listed, f"{name} is not known to be in Android's C library at API {API_LEVEL}: "
                     "add it with its level after looking")
        elif level.get(name, 0) > API_LEVEL:
            complain(listed, f"{name} came with API {level[name]}, after {API_LEVEL}")


def undefined(files):
    return set().union(*(nm("-u", f) for f in files)) - set().union(
        *(nm("--defined-only", f) for f in files))
