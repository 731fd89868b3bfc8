#!/usr/bin/env -S python3 -B
"""The release libraries' outer faces: what they export, import and need at run time.

libplx.so.1 exports exactly what app/libplx.map lists, all under one symbol version; it imports no thread, lock,
exception or operator new, and needs only the C library, protobuf-c and the platform's libraries. No library of ours
exports a C++ name, and each carries its SONAME.
"""
import fnmatch
import glob
import os
import re
import subprocess
import sys

BUILD = "build"
LIBRARY = f"{BUILD}/lib/libplx.so.1"
MAP = "app/libplx.map"
VERSION = "PLX_1"
PLATFORM = {"libtq_mom_impl.so.1", "libtq_time.so.1", "libtq_zlog.so.1", "libssat.so.1", "libcgstctrl.so.1"}
NEEDED = PLATFORM | {"libc.so.6", "libprotobuf-c.so.1", "ld-linux-x86-64.so.2", "ld-linux-aarch64.so.1",
                     "ld-linux-armhf.so.3"}
# __cxa_finalize and __cxa_atexit are the C library's, for destructors at unloading.
BANNED = re.compile(r"^(pthread_|mtx_|cnd_|thrd_|sem_|call_once|_Zn|_Zd|_ZSt|_ZNSt|__gxx_|_Unwind_|__dynamic_cast"
                    r"|__cxa_(?!finalize$|atexit$))")


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def dynamic_symbols(library, kind):
    """name@version of the defined or undefined dynamic symbols"""
    lines = output("nm", "-D", f"--{kind}-only", library).splitlines()
    return [line.split()[-1] for line in lines if line.split()[-2] != "A"]


def listed():
    """the names and patterns of the map's global part"""
    with open(MAP, encoding="utf-8") as text:
        body = re.sub(r"/\*.*?\*/|#[^\n]*", "", text.read(), flags=re.DOTALL)
    head, shown = re.fullmatch(r"\s*(\w+)\s*\{\s*global:(.*?)local:\s*\*;\s*\};\s*", body, re.DOTALL).groups()
    if head != VERSION:
        raise ValueError(f"{MAP}: the version is {head}, not {VERSION}")
    return [name.strip() for name in shown.split(";") if name.strip()]


def export_faults(symbols, names):
    seen = set()
    for symbol in symbols:
        name, _, version = symbol.partition("@@")
        if version != VERSION:
            yield f"{symbol} is exported outside {VERSION}"
        matching = [pattern for pattern in names if fnmatch.fnmatchcase(name, pattern)]
        seen.update(matching)
        if not matching:
            yield f"{name} is exported but not listed in {MAP}"
    for name in sorted(set(names) - seen):
        yield f"{name} is listed in {MAP} but not exported"


def tag(library, name):
    return re.findall(rf"\({name}\)[^\[]*\[([^\]]+)\]", output("readelf", "-dW", library))


def library_faults(library):
    if tag(library, "SONAME") != [os.path.basename(library)]:
        yield f"{library}: its SONAME is {tag(library, 'SONAME')}"
    for symbol in dynamic_symbols(library, "defined"):
        if symbol.startswith("_Z"):
            yield f"{library}: exports the C++ name {symbol}"


def faults():
    yield from export_faults(dynamic_symbols(LIBRARY, "defined"), listed())
    for symbol in dynamic_symbols(LIBRARY, "undefined"):
        if BANNED.match(symbol.partition("@")[0]):
            yield f"{LIBRARY} imports {symbol}"
    for name in sorted(set(tag(LIBRARY, "NEEDED")) - NEEDED):
        yield f"{LIBRARY} needs {name} at run time"
    for library in sorted(glob.glob(f"{BUILD}/lib/*.so.1")):
        yield from library_faults(library)


def main():
    for command in (["scripts/configure", "release", BUILD], ["cmake", "--build", BUILD]):
        if subprocess.run(command, stdout=subprocess.DEVNULL).returncode:
            return 1
    found = list(faults())
    for fault in found:
        print("exports:", fault, file=sys.stderr)
    print(f"exports: {len(dynamic_symbols(LIBRARY, 'defined'))} symbols, {len(found)} faults")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
