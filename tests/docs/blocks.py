"""Checks that every block of a document is true. Usage: blocks.py SOURCE-DIRECTORY DOCUMENT...

A block says behind its language what it is: the name of a file, which then has exactly that content (the file is
compiled, run and compared by tests of its own), or nothing for "console", whose commands are run as they stand in one
shell and must print what is shown. Numbers that differ from run to run are left out of the comparison.
"""
import difflib
import os
import re
import subprocess
import sys

source, documents = sys.argv[1], sys.argv[2:]
wrong = 0


def fail(place, reason):
    global wrong
    wrong += 1
    print(f"{place}: {reason}")


def same(place, shown, real):
    lines = list(difflib.unified_diff(shown, real, "shown", "real", lineterm=""))
    if lines:
        fail(place, "is not so:\n" + "\n".join(lines))


def comparable(line):
    line = re.sub(r"(waitpid on .*returned )\d{2,}$", r"\1N", line)
    line = re.sub(r"pid \d+", "pid N", line)
    return re.sub(r"\d+\.\d+ s$", "N s", line)


def check_console(place, lines):
    commands = "\n".join(line[2:] for line in lines if line.startswith("$ "))
    shown = [comparable(line) for line in lines if not line.startswith("$ ")]
    environment = {**os.environ, "LC_ALL": "C"}
    for name in ("ZT_PIPE_DEBUG", "ZT_TRACE_FILE"):
        environment.pop(name, None)
    run = subprocess.run(["bash", "-c", commands], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                         stderr=subprocess.STDOUT, env=environment, timeout=60, text=True)
    same(place, shown, [comparable(line) for line in run.stdout.splitlines()])


def check_block(place, info, lines):
    language, _, name = info.partition(" ")
    if language == "console":
        check_console(place, lines)
    elif name:
        with open(os.path.join(source, name), encoding="utf-8") as file:
            same(place, lines, file.read().splitlines())
    else:
        fail(place, f"a block '{info}' that nothing checks")


for document in documents:
    blocks, info, lines, begin = 0, None, [], 0
    with open(os.path.join(source, document), encoding="utf-8") as file:
        for number, line in enumerate(file.read().splitlines(), 1):
            if not line.startswith("```"):
                lines.append(line)
            elif info is None:
                info, lines, begin = line[3:], [], number
            else:
                blocks += 1
                check_block(f"{document}:{begin}", info, lines)
                info = None
    if blocks == 0:
        fail(document, "no block found")
sys.exit(1 if wrong else 0)
