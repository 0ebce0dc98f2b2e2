"""scripts/check-exe as a module: it has no ending that would make it one."""
from __future__ import annotations

import importlib.machinery
import importlib.util
import sys
import types

from lab import paths


def load() -> types.ModuleType:
    path = paths.ROOT / "scripts" / "check-exe"
    loader = importlib.machinery.SourceFileLoader("check_exe", str(path))
    spec = importlib.util.spec_from_loader("check_exe", loader)
    assert spec is not None
    module = importlib.util.module_from_spec(spec)
    written, sys.dont_write_bytecode = sys.dont_write_bytecode, True  # nothing of it beside the scripts
    try:
        loader.exec_module(module)
    finally:
        sys.dont_write_bytecode = written
    return module


check_exe = load()
