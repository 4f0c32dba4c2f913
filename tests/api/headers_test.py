"""Every public header and every platform header compiles alone and twice over, with every compiler
there is, and the layouts hold on each: headers_test.py ROOT COMPILER...

The cross compiler checks the layouts of the 32-bit target. A compiler that is missing is told.
"""

import concurrent.futures
import glob
import os
import shutil
import subprocess
import sys

ROOT = sys.argv[1]
FOLDERS = [os.path.join(ROOT, "include"), os.path.join(ROOT, "platform", "include")]
FLAGS = ["-std=c++17", "-fsyntax-only", "-Wall", "-Wextra", "-Wconversion", "-Wshadow",
         "-Wformat=2", "-Wpedantic", "-Werror", "-x", "c++"]
FLAGS += [word for folder in FOLDERS for word in ("-I", folder)]


def compile_text(compiler, name, text):
    done = subprocess.run([compiler, *FLAGS, "-"], input=text, capture_output=True, text=True,
                          timeout=120)
    return "" if done.returncode == 0 else f"{compiler}: {name}\n{done.stderr}"


headers = [os.path.relpath(path, folder) for folder in FOLDERS
           for path in sorted(glob.glob(os.path.join(folder, "**", "*.h"), recursive=True))]
texts = {header: f'#include "{header}"\n' * 2 for header in headers}
layout = os.path.join(os.path.dirname(os.path.abspath(__file__)), "layout.cpp")
with open(layout) as file:
    texts["layout.cpp"] = file.read()

compilers = list(dict.fromkeys(sys.argv[2:]))
found = [compiler for compiler in compilers if shutil.which(compiler)]
for compiler in compilers:
    if compiler not in found:
        print(f"skipped: {compiler} is missing")

with concurrent.futures.ThreadPoolExecutor(2) as pool:
    results = list(pool.map(lambda job: compile_text(*job),
                            [(compiler, *item) for compiler in found for item in texts.items()]))
problems = [result for result in results if result]
print("\n".join(problems) or f"{len(headers)} headers and the layouts with {', '.join(found)}")
sys.exit(1 if problems or not found or len(headers) < 30 else 0)
