"""Where things are. TAVIK_BUILD names a build tree other than build/release."""
import os
import pathlib

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILD = pathlib.Path(os.environ.get("TAVIK_BUILD", ROOT / "build" / "release")).resolve()
TOOL = BUILD / "TavikCompatibilityTool.exe"
COMPANION = BUILD / "TavikToolCompanion.exe"
PROGRAMS = BUILD / "lab" / "programs"
PACKAGES = BUILD / "lab" / "packages"
STANDINS = BUILD / "lab" / "standins"
TEMPLATES = ROOT / "build" / "lab-template"
RUNS = ROOT / "build" / "lab-runs"  # on the same file system as the templates: prefixes are hard-linked copies
CERTIFICATES = ROOT / "build" / "lab-certificates"

WINE = "/usr/lib/wine/wine64"
WINESERVER = "/usr/lib/wine/wineserver64"
WINE_DLLS = pathlib.Path("/usr/lib/x86_64-linux-gnu/wine/x86_64-windows")


def need(path: pathlib.Path) -> pathlib.Path:
    """Returns the path. Raises FileNotFoundError with advice if nothing is there."""
    if not path.exists():
        raise FileNotFoundError(f"{path} is missing: run scripts/build first")
    return path
