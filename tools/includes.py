"""Checks which folder includes which.

In src/, app may include every folder; the folders in the middle include only base and themselves, so that each can be read
and tested alone; base includes only itself. The companion uses base, inventory and the headers of STATUS, never the other
way round. Tests and the Windows check may include any part of the tool. The lab includes nothing of the programs
that it runs.
"""
import re
import sys
from pathlib import Path, PurePosixPath

from tools.project import TOP, files

MIDDLE = ["ui", "inventory", "acquisition", "install", "store"]
TOOL = {"base", "resources", "app", *MIDDLE}
# What the companion asks of the tool beside the inventory: the edition, the same-release rule, the installer, the products.
STATUS = {"app/edition.h", "acquisition/local_installer.h", "acquisition/server_folder.h",
          "install/constants.h", "install/msi_products.h", "store/store_packages.h"}
# Folder -> folders or single headers that its files may include, written from the include roots src/ and the project's top.
MAY_INCLUDE = {
    "base": {"base"},
    "resources": {"resources"},
    "app": {"app", "base", *MIDDLE},
    **{folder: {folder, "base"} for folder in MIDDLE},
    "companion": {"companion", "base", "inventory", "resources/version.h", *STATUS},
    "windows_check": {"windows_check", "support", *TOOL},
    "tests": {"support", *TOOL},
    "companion/tests": {"companion", "support", "base", "install/constants.h"},
    "companion/fuzz": {"companion"},
    "bench": {"bench", *TOOL},
}
MAY_INCLUDE["ui"].add("resources/resource_ids.h")
# The one declaration of the Windows Runtime that is independent of the product's; the lab owns it.
MAY_INCLUDE["windows_check"].add("lab/standins/winrt/abi.h")
MAY_INCLUDE["tests"] |= {f"lab/standins/winrt/{name}.h" for name in ("abi", "classes", "object")}  # and its objects
OURS = {*TOOL, "companion", "windows_check", "support", "lab"}

INCLUDE = re.compile(r'^\s*#\s*include\s*(["<])([^">]+)[">]')


def rule_of(file: Path) -> str:
    """The row of MAY_INCLUDE that a file belongs to."""
    parts = file.relative_to(TOP).parts
    if parts[0] == "src":
        return parts[1]
    if parts[0] == "companion" and parts[1] in ("tests", "fuzz"):
        return "/".join(parts[:2])
    return parts[0]


def wrong(file: Path, path: str, quoted: bool) -> str | None:
    """Why this include must not be, or None."""
    first = PurePosixPath(path).parts[0]
    if not quoted:
        return "our headers are included in quotes" if first in OURS else None
    if ".." in PurePosixPath(path).parts:
        return 'written from an include root, as in "base/log.h"'
    rule = rule_of(file)
    if rule == "lab":
        return "the lab includes nothing of the programs it runs" if first in OURS and not (file.parent / path).is_file() else None
    if rule not in MAY_INCLUDE:
        return f"tools/includes.py has no rule for {rule}"
    if first not in OURS:
        return None if (file.parent / path).is_file() and not path.startswith(rule) and rule in ("bench", "resources") else \
            'written from an include root, as in "base/log.h"'
    if first not in MAY_INCLUDE[rule] and path not in MAY_INCLUDE[rule]:
        return f"{rule} may include only {', '.join(sorted(MAY_INCLUDE[rule]))}"
    return None


def main() -> int:
    sources = files("*.cpp", "*.h")
    includes = problems = 0
    for file in sources:
        for number, line in enumerate(file.read_text(encoding="utf-8").splitlines(), 1):
            found = INCLUDE.match(line)
            if not found:
                continue
            includes += 1
            reason = wrong(file, found[2], found[1] == '"')
            if reason:
                problems += 1
                print(f"{file.relative_to(TOP)}:{number}: {line.strip()}: {reason}")
    print(f"includes: {includes} includes in {len(sources)} files, {problems} wrong.")
    return 1 if problems or not includes else 0


if __name__ == "__main__":
    sys.exit(main())
