"""What libtaveml exports and needs, held against what is checked in beside this file.

    exported.py symbols ARCHITECTURE LIBRARY   the names, with their version
    exported.py abi ARCHITECTURE LIBRARY       types and layouts (libabigail; needs debug information)
    exported.py needed LIBRARY                 soname and libraries
    exported.py port LIBRARY...                the Linux port: only what its headers declare
    exported.py cross FOLDER                   builds for 32-bit ARM in FOLDER and checks all three
    exported.py update ARCHITECTURE LIBRARY    makes the lists of one architecture anew

Exit code 77: a tool is missing. A change that is meant is taken over with tests/api/update.
"""

import difflib
import glob
import lzma
import os
import re
import shutil
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
HEADERS = [os.path.join(ROOT, *folder.split("/"))
           for folder in ("include", "platform/include", "platform/linux/include")]
SONAME = "libtaveml.so.3"
ARM_COMPILER = "arm-linux-gnueabihf-g++"
# The platform libraries, and the runtimes of C++ and C.
MAY_NEED = re.compile(r"libutlbase\.so\.1|libtavdbglog\.so\.1|libtavplatform\.so\.1"
                      r"|libstdc\+\+\.so\.6|libgcc_s\.so\.1|libc\.so\.6|libm\.so\.6|ld-linux.*")


def skip(reason):
    print("skipped:", reason)
    sys.exit(77)


def require(tool, package):
    if shutil.which(tool) is None:
        skip(f"{tool} is missing (Debian package {package})")


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def checked_in(architecture, kind):
    path = os.path.join(HERE, f"{architecture}.{kind}")
    if not os.path.exists(path):
        skip(f"there is no {os.path.basename(path)}")
    return path


def names(library):
    """Sorted. The kind of a symbol is left out, because it depends on the processor and the
    compiler; a constructor or destructor with several entry points stands there once."""
    lines = output("nm", "--dynamic", "--defined-only", "--demangle", library).splitlines()
    symbols = [re.match(r"[0-9a-f]+ (.) (.*)", line) for line in lines]
    return sorted({found[2] for found in symbols if found[1] != "A"})


def check_symbols(architecture, library):
    with open(checked_in(architecture, "symbols")) as file:
        expected = file.read().splitlines()
    changes = [line for line in difflib.unified_diff(expected, names(library), n=0, lineterm="")
               if not line.startswith(("---", "+++", "@@"))]
    print("\n".join(changes) or f"{len(expected)} names, as listed")
    return not changes


def check_needed(library):
    entries = re.findall(r"\((NEEDED|SONAME)\).*\[(.*)\]", output("readelf", "-dW", library))
    soname = [name for kind, name in entries if kind == "SONAME"]
    needed = [name for kind, name in entries if kind == "NEEDED"]
    superfluous = [name for name in needed if not MAY_NEED.fullmatch(name)]
    print(f"soname {soname}, needs {needed}", f"superfluous: {superfluous}" if superfluous else "")
    return soname == [SONAME] and not superfluous


def check_port(libraries):
    text = ""
    for path in [path for folder in HEADERS[1:] for path in glob.glob(os.path.join(folder, "*.h"))]:
        with open(path) as file:
            text += file.read()
    problems = []
    for library in libraries:
        for name in names(library):
            bare = re.sub(r"^(vtable|typeinfo|typeinfo name) for |\(.*", "", name).split("::")[-1]
            if not re.search(r"(?<!\w)" + re.escape(bare) + r"(?!\w)", text):
                problems.append(f"{os.path.basename(library)} exports {name}")
    print("\n".join(problems) or "nothing superfluous")
    return not problems


def header_options(prefix):
    return [word for folder in HEADERS for word in (prefix, folder)]


def check_abi(architecture, library):
    require("abidiff", "abigail-tools")
    if ".debug_info" not in output("readelf", "-SW", library):
        skip("the library was built without debug information")
    with tempfile.NamedTemporaryFile(suffix=".abi") as expected:
        with lzma.open(checked_in(architecture, "abi.xz")) as packed:
            shutil.copyfileobj(packed, expected)
        expected.flush()
        # Two members of one type that change places count as harmless there; here they do not.
        done = subprocess.run(["abidiff", "--exported-interfaces-only", "--no-show-locs",
                               "--harmless", "--redundant", *header_options("--headers-dir2"),
                               expected.name, library],
                              capture_output=True, text=True, timeout=300)
    print(done.stdout, done.stderr, f"abidiff ends with {done.returncode}")
    return done.returncode == 0


def check_cross(folder):
    require(ARM_COMPILER, "g++-arm-linux-gnueabihf")
    library = build(folder, "-DCMAKE_TOOLCHAIN_FILE=" + os.path.join(
        ROOT, "cmake", "arm-linux-gnueabihf.cmake"), "-DTAVEML_LINUX_PORT=OFF")
    # In this order, because the last one may be skipped.
    return (check_symbols("arm", library) & check_needed(library)) and check_abi("arm", library)


def build(folder, *options):
    """The library alone, with debug information."""
    for command in (["cmake", "-S", ROOT, "-B", folder, "-DCMAKE_BUILD_TYPE=Debug",
                     "-DTAVEML_TOOL=OFF", "-DBUILD_TESTING=OFF", *options],
                    ["cmake", "--build", folder, "--target", "taveml", "--parallel", "2"]):
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if done.returncode != 0:
            sys.exit(done.stdout)
    return os.path.join(folder, "lib", "libtaveml.so")


def update(architecture, library):
    require("abidw", "abigail-tools")
    with open(os.path.join(HERE, f"{architecture}.symbols"), "w") as file:
        file.write("\n".join(names(library)) + "\n")
    dump = output("abidw", "--exported-interfaces-only", "--drop-private-types", "--no-show-locs",
                  "--no-corpus-path", "--no-comp-dir-path", "--type-id-style", "hash",
                  *header_options("--headers-dir"), library)
    # Packed: the names above are what a person reads, and the dump is large.
    with lzma.open(os.path.join(HERE, f"{architecture}.abi.xz"), "w") as packed:
        packed.write(dump.encode())
    return True


ACTIONS = {"symbols": check_symbols, "abi": check_abi, "needed": check_needed, "cross": check_cross,
           "port": lambda *libraries: check_port(libraries), "update": update}

if __name__ == "__main__":
    if len(sys.argv) < 3 or sys.argv[1] not in ACTIONS:
        sys.exit(__doc__)
    sys.exit(0 if ACTIONS[sys.argv[1]](*sys.argv[2:]) else 1)
