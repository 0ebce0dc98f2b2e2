"""The stand-ins offer what the real DLLs offer. Their answers and the effect of fault rules are shown by the cases that use them."""
from __future__ import annotations

import re

import pefile
import pytest

from lab import paths
from lab.prefix import STANDINS


@pytest.mark.parametrize("name", STANDINS)
def test_every_export_of_the_real_dll_is_offered(name: str):
    """By name or number, as the stand-in's own function or as a forward to the real one."""
    real, standin = ({symbol.ordinal: symbol for symbol in pefile.PE(str(folder / f"{name}.dll")).DIRECTORY_ENTRY_EXPORT.symbols}
                     for folder in (paths.WINE_DLLS, paths.STANDINS))
    assert {number: symbol.name for number, symbol in real.items()}.items() <= {number: symbol.name for number, symbol in standin.items()}.items()
    source = (paths.ROOT / "lab" / "standins" / f"{name}.cpp").read_text("utf-8")
    own = {symbol.name.decode() for symbol in standin.values() if symbol.forwarder is None}
    assert own == set(re.findall(r"^\w.*\bLab_(\w+)\(", source, re.MULTILINE))
    assert all(symbol.forwarder in (None, b"%s_lab.%s" % (name.encode(), symbol.name or b"#%d" % number))
               for number, symbol in standin.items())
