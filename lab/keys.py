"""Refuses unknown keys in a machine's description."""
from __future__ import annotations

from collections.abc import Iterable
from typing import Any


def check(table: Any, known: Iterable[str], where: str) -> None:
    if not isinstance(table, dict):
        raise ValueError(f"{where}: a table is needed, not {table!r}")
    unknown = sorted(set(table) - set(known))
    if unknown:
        raise ValueError(f"{where}: unknown key {', '.join(unknown)}; known are {', '.join(sorted(known))}")
