"""Scripts as modules: they have no ending that would make them one."""
from __future__ import annotations

import importlib.machinery
import importlib.util
import pathlib
import sys
import types


def load(path: pathlib.Path) -> types.ModuleType:
    name = path.name.replace("-", "_")
    loader = importlib.machinery.SourceFileLoader(name, str(path))
    spec = importlib.util.spec_from_loader(name, loader)
    assert spec is not None
    module = importlib.util.module_from_spec(spec)
    written, sys.dont_write_bytecode = sys.dont_write_bytecode, True  # nothing of it beside the scripts
    try:
        loader.exec_module(module)
    finally:
        sys.dont_write_bytecode = written
    return module
