"""Runs the path-following analyzers of clang and gcc over our sources, one process per file.

Usage: analyze.py BUILD JOBS FOLDER...    The status is 1 when one of them has found something.
"""

import concurrent.futures
import json
import os
import pathlib
import re
import shlex
import subprocess
import sys

# clang-tidy has already run clang's usual checkers; these are further useful ones: sizes, pointers
# and iterators, files, and C strings. Not alpha.unix.PthreadLock: all our locks are scoped, and it
# forgets who holds one that a condition variable has waited with.
CLANG_CHECKERS = [
    "core", "cplusplus", "unix",
    "alpha.core.CastSize", "alpha.core.IdenticalExpr", "alpha.core.PointerSub",
    "alpha.core.SizeofPtr", "alpha.core.TestAfterDivZero", "alpha.core.BoolAssignment",
    "alpha.cplusplus.DeleteWithNonVirtualDtor", "alpha.cplusplus.EnumCastOutOfRange",
    "alpha.cplusplus.InvalidatedIterator", "alpha.cplusplus.IteratorRange",
    "alpha.cplusplus.MismatchedIterator", "alpha.cplusplus.STLAlgorithmModeling",
    "alpha.nondeterminism.PointerSorting", "alpha.security.MallocOverflow",
    "alpha.security.ReturnPtrRange", "alpha.security.cert.pos.34c", "alpha.unix.Chroot",
    "alpha.unix.Stream", "alpha.unix.cstring.NotNullTerminated",
    "alpha.unix.cstring.OutOfBounds"]

CLANG = ["--analyze", "-Xclang", "-analyzer-checker=" + ",".join(CLANG_CHECKERS),
         "-Xclang", "-analyzer-output=text", "-Xclang", "-analyzer-werror",
         "-Xclang", "-analyzer-disable-checker=unix.Vfork",
         "-Xclang", "-analyzer-disable-checker=security.insecureAPI.vfork",
         "-Xclang", "-analyzer-config",  # The iterators' checkers want this.
         "-Xclang", "aggressive-binary-operation-simplification=true"]

GCC = ["-fanalyzer", "-O0", "-U_FORTIFY_SOURCE", "-fdiagnostics-format=json"]

# This analyzer thinks that operator new may return null, and that objects returned by value are not
# initialised; clang's checks both. Its warnings about malloc and about variables count.
GCC_MISTAKES = re.compile(r"possibly-NULL 'operator new|use of uninitialized value '<unknown>'")


def sources(build, folders):
    """The command of each of our files, without what names its output."""
    root = pathlib.Path(__file__).resolve().parents[2]
    wanted = [root / folder for folder in folders]
    commands = {}
    for entry in json.loads((pathlib.Path(build) / "compile_commands.json").read_text()):
        if any(folder in wanted for folder in pathlib.Path(entry["file"]).parents):
            words = shlex.split(entry["command"])
            words = words[next(i for i, word in enumerate(words) if word.endswith("++")) + 1:]
            at = words.index("-o")
            if words[at + 1].startswith("tests/"):
                continue  # The same file, compiled with substitutes.
            commands[entry["file"]] = (entry["directory"], words[:at] + words[at + 2:])
    return commands


def clang_findings(directory, words):
    result = subprocess.run(["clang++", *words, *CLANG, "-o", "/dev/null"], cwd=directory,
                            capture_output=True, text=True, check=False)
    return result.stdout + result.stderr, result.returncode != 0


def place_of(location):
    return "{file}:{line}".format(**location["caret"])


def gcc_findings(directory, words):
    """As one line each, and one for each step on the way there. Those without a place lie in Boost, whose
    users take gcc minutes each."""
    result = subprocess.run(["g++", *words, *GCC, "-o", "/dev/null"], cwd=directory,
                            capture_output=True, text=True, check=False,
                            env={**os.environ, "LC_ALL": "C"})
    lines = []
    for finding in json.loads(result.stderr or "[]"):
        if finding["locations"] and not GCC_MISTAKES.search(finding["message"]):
            lines.append(f"{place_of(finding['locations'][0])}: {finding['message']} "
                         f"[{finding.get('option', finding['kind'])}]\n")
            lines += ["    {}:{}: {}\n".format(step["location"]["file"], step["location"]["line"],
                                              step["description"])
                      for step in finding.get("path", []) if "location" in step]
    return "".join(lines), bool(lines)


def analyze(directory, words):
    """What the two have to say about one file, and whether that is a finding."""
    words = [word for word in words if not word.startswith("-Werror")]
    findings = [find(directory, words) for find in (clang_findings, gcc_findings)]
    return "".join(text for text, _ in findings), any(found for _, found in findings)


def main():
    build, jobs, folders = sys.argv[1], int(sys.argv[2]), sys.argv[3:]
    commands = sources(build, folders)
    if not commands:
        sys.exit(f"{build} compiles nothing of {', '.join(folders)}")
    wrong = False
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        for text, found in pool.map(lambda command: analyze(*command), commands.values()):
            sys.stdout.write(text)
            sys.stdout.flush()
            wrong = wrong or found
    sys.exit(1 if wrong else 0)


if __name__ == "__main__":
    main()
