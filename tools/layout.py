"""Brings the C++ sources into the layout of .clang-format.

    scripts/format            changes the files
    scripts/format --check    only shows what differs; exit code 1 if anything does
"""
import os
import subprocess
import sys

from tools.project import TOP, files


def main(arguments: list[str]) -> int:
    if arguments not in ([], ["--check"]):
        print(__doc__)
        return 0 if arguments in (["--help"], ["-h"]) else 2
    sources, parts = files("*.cpp", "*.h"), os.cpu_count() or 1
    options = ["--dry-run", "-Werror"] if arguments else ["-i"]
    running = [subprocess.Popen(["clang-format", *options, *sources[part::parts]], cwd=TOP) for part in range(parts)]
    if any([process.wait() for process in running]):
        print("Run scripts/format to bring these files into the layout.")
        return 1
    print(f"{len(sources)} files have the layout.")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
