"""Every public header and every platform header compiles as C++11, alone and twice over, with every
compiler there is, and the layouts hold on each: headers_test.py ROOT COMPILER...

The cross compiler checks the layouts of the 32-bit target. A compiler that is missing is told.
"""

import concurrent.futures
import glob
import os
import shutil
import subprocess
import sys

ROOT = sys.argv[1]
FOLDERS = [os.path.join(ROOT, *folder.split("/"))
           for folder in ("include", "platform/include", "platform/linux/include")]
FLAGS = ["-fsyntax-only", "-Wall", "-Wextra", "-Wconversion", "-Wshadow",
         "-Wformat=2", "-Wpedantic", "-Werror", "-x", "c++"]
FLAGS += [word for folder in FOLDERS for word in ("-I", folder)]


# What applications write: records and texts become the library's objects by themselves.
CONVERSIONS = '''#include "quorvelmida/taveml.h"
void convert(quorvelmida::tav_eml_smtp_send_mail& mail,
             const quorvelmida::_tav_eml_smtp_setting& record) {
  mail.m_cFrom = "x@y.example";
  const quorvelmida::tav_eml_smtp_settings settings = record;
}
'''


def compile_text(compiler, name, text):
    standard = "-std=c++17" if name == "layout.cpp" else "-std=c++11"
    done = subprocess.run([compiler, standard, *FLAGS, "-"], input=text, capture_output=True, text=True,
                          timeout=120)
    return "" if done.returncode == 0 else f"{compiler}: {name}\n{done.stderr}"


headers = [os.path.relpath(path, folder) for folder in FOLDERS
           for path in sorted(glob.glob(os.path.join(folder, "**", "*.h"), recursive=True))]
texts = {header: f'#include "{header}"\n' * 2 for header in headers}
texts["conversions"] = CONVERSIONS
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
