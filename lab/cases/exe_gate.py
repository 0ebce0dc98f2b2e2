"""The gate of the exe as a module."""
from __future__ import annotations

from lab import paths
from script_module import load

check_exe = load(paths.ROOT / "scripts" / "check-exe")
