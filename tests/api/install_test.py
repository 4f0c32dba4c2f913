"""A newcomer's way: installs into a prefix, moves the prefix, builds the example outside the tree
with the CMake package and with pkg-config, and runs it against the practice mail server
that was installed as well. Another program takes the source tree in with add_subdirectory.

    install_test.py ROOT BUILD COMPILER
"""

import os
import re
import shutil
import subprocess
import sys
import tempfile
import time

ROOT, BUILD, COMPILER = sys.argv[1:]
PASSWORD = "a password"
# Names its own targets as it likes, and has nothing that the tool and the tests are built with.
EMBEDDING = """cmake_minimum_required(VERSION 3.22)
project(embedding LANGUAGES CXX)
foreach(name mailutil smtp pop3 platform tests fuzz reference)
  add_library(${name} INTERFACE)
endforeach()
foreach(package CLI11 nlohmann_json tomlplusplus GTest Python3)
  set(CMAKE_DISABLE_FIND_PACKAGE_${package} ON)
endforeach()
add_subdirectory("${TREE}" taveml)
add_library(program OBJECT program.cpp)
target_link_libraries(program PRIVATE taveml::taveml taveml::platform)
if(CMAKE_BUILD_TYPE OR DEFINED CACHE{BUILD_TESTING} OR DEFINED CMAKE_CXX_VISIBILITY_PRESET)
  message(FATAL_ERROR "the embedding project was changed")
endif()
"""
PROGRAM = """#include "quorvelmida/taveml.h"
#include "tav_wake.h"
quorvelmida::_tav_eml_smtp_setting record;
"""


def run(*command, folder=None, **variables):
    environment = {**os.environ, **variables}
    # What a build around us has set is not what a newcomer has.
    for name in ("DESTDIR", "CMAKE_PREFIX_PATH"):
        if name not in variables:
            environment.pop(name, None)
    done = subprocess.run(command, cwd=folder, env=environment, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, timeout=240)
    print("$", *command, "\n" + done.stdout)
    if done.returncode != 0:
        sys.exit(f"failed with {done.returncode}")
    return done.stdout


def find(prefix, name):
    return next(os.path.join(folder, name) for folder, _, files in os.walk(prefix) if name in files)


def read_ports(path):
    for _ in range(100):
        if os.path.exists(path):
            with open(path) as file:
                return dict(line.strip().split("=") for line in file)
        time.sleep(0.1)
    sys.exit("the mail host does not start")


def build(work, prefix):
    """The example, built in two ways outside the tree, and how each finds its libraries."""
    source = os.path.join(work, "roundtrip")
    shutil.copytree(os.path.join(ROOT, "examples", "roundtrip"), source)
    run("cmake", "-S", source, "-B", os.path.join(work, "cmake"), f"-DCMAKE_CXX_COMPILER={COMPILER}",
        f"-DCMAKE_PREFIX_PATH={prefix}", "-DCMAKE_CXX_FLAGS=-Wall -Wextra -Wconversion -Werror")
    run("cmake", "--build", os.path.join(work, "cmake"))
    ways = [(os.path.join(work, "cmake", "roundtrip"), {})]
    if shutil.which("pkg-config"):
        package = find(prefix, "taveml.pc")
        run("make", f"CXX={COMPILER}", folder=source, PKG_CONFIG_PATH=os.path.dirname(package))
        libraries = os.path.dirname(find(prefix, "libtaveml.so.3"))
        ways.append((os.path.join(source, "roundtrip"), {"LD_LIBRARY_PATH": libraries}))
    return ways


def round_trips(work, prefix, programs):
    ports_file, authority = os.path.join(work, "ports"), os.path.join(work, "ca.pem")
    host = subprocess.Popen([os.path.join(prefix, "bin", "tavmail-host"), "--any-port",
                             "--ca-out", authority, "--ready-file", ports_file,
                             "--user", f"taro:{PASSWORD}", "--login-required", "--max-seconds", "120"],
                            stdout=subprocess.DEVNULL)
    try:
        ports = read_ports(ports_file)
        for program, variables in programs:
            said = run(program, "localhost", ports["smtp"], ports["pop3"], "taro",
                       "taro@example.com", os.path.join(ROOT, "tests", "data", "report.pdf"),
                       ROUNDTRIP_PASSWORD=PASSWORD, TAV_DBGLOG="stderr",
                       SSL_CERT_FILE=authority, **variables)
            assert "bytes, as they were sent" in said
            assert PASSWORD not in said
    finally:
        host.terminate()
        host.wait()


def check_tool(prefix):
    """The tool finds its libraries in the prefix and nothing of the tree is left in any of them."""
    assert "tavmail" in run(os.path.join(prefix, "bin", "tavmail"), "--version", LD_LIBRARY_PATH="")
    for folder, _, files in os.walk(prefix):
        for name in files:
            if name.endswith((".cmake", ".pc")):
                with open(os.path.join(folder, name)) as file:
                    text = file.read()
                assert ROOT not in text and BUILD not in text, f"{name} knows the source folder"


def cached(name):
    with open(os.path.join(BUILD, "CMakeCache.txt")) as file:
        return next(line.split("=", 1)[1].strip() for line in file if line.startswith(name + ":"))


def check_binaries(*folders):
    """Hardened, looking for libraries where they are and nowhere else, without paths of the build."""
    if cached("CMAKE_BUILD_TYPE") != "Release" or cached("TAVEML_HARDENING") != "ON":
        return
    paths = [os.path.join(folder, name) for top in folders for folder, _, files in os.walk(top)
             for name in files if re.fullmatch(r"tavmail|lib\w+\.so\.\d.*", name)]
    binaries = [path for path in paths
                if not os.path.islink(path) and open(path, "rb").read(4) == b"\x7fELF"]
    assert len(binaries) == 5 * 2, binaries
    for path in binaries:
        about = subprocess.run(["readelf", "-hldsW", path], capture_output=True, text=True,
                               check=True).stdout
        ways = re.findall(r"\((?:RUNPATH|RPATH)\).*\[(.*)\]", about)
        for what, is_good in (
                ("RELRO", "GNU_RELRO" in about),
                ("BIND_NOW", re.search(r"\(FLAGS\).*BIND_NOW", about)),
                ("position independent", re.search(r"Type: *DYN", about)),
                ("stack not executable", re.search(r"GNU_STACK.* RW ", about)),
                ("stack protector", "__stack_chk_fail" in about or "utlbase" in path),
                ("search path", all(entry.startswith("$ORIGIN")
                                    for way in ways for entry in way.split(":"))),
                ("no path of the build", ROOT.encode() not in open(path, "rb").read())):
            assert is_good, f"{path}: {what}"


def check_embedding(work):
    """Configured, compiled against the headers, and nothing of the tree gets into its installation."""
    source, binary = os.path.join(work, "embedding"), os.path.join(work, "embedding", "build")
    os.mkdir(source)
    for name, text in (("CMakeLists.txt", EMBEDDING), ("program.cpp", PROGRAM)):
        with open(os.path.join(source, name), "w") as file:
            file.write(text)
    run("cmake", "-G", "Ninja", "-S", source, "-B", binary, f"-DCMAKE_CXX_COMPILER={COMPILER}",
        f"-DTREE={ROOT}")
    run("cmake", "--build", binary, "--target", "program")
    run("cmake", "--install", binary, "--prefix", os.path.join(work, "nothing"))
    assert not os.path.exists(os.path.join(work, "nothing"))


with tempfile.TemporaryDirectory() as temporary:
    check_embedding(temporary)
    first, moved = os.path.join(temporary, "first"), os.path.join(temporary, "moved")
    run("cmake", "--install", BUILD, "--prefix", first)
    os.rename(first, moved)
    check_tool(moved)
    check_binaries(moved, os.path.join(BUILD, "lib"), os.path.join(BUILD, "tool"))
    round_trips(temporary, moved, build(temporary, moved))
