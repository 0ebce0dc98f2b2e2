"""Wine's registry files, read and written as text while no Wine server has them open.

A run changes some values among 40,000 lines, so a section stays text until it is asked for.
"""
from __future__ import annotations

import pathlib
import re
import struct

TYPES = {"REG_NONE": 0, "REG_SZ": 1, "REG_EXPAND_SZ": 2, "REG_BINARY": 3, "REG_DWORD": 4, "REG_MULTI_SZ": 7, "REG_QWORD": 11}
NAMES = {number: name for name, number in TYPES.items()}
CONTROL_SET = re.compile(r"(?<=^system)\\CurrentControlSet\\", re.I)
_ESCAPE = re.compile(r"\\(x[0-9a-fA-F]{1,4}|[0-7]{1,3}|.)", re.S)


def _unescape(text: str) -> str:
    def one(match: re.Match[str]) -> str:
        code = match.group(1)
        if code[0] == "x" and len(code) > 1:
            return chr(int(code[1:], 16))
        if code[0] in "01234567":
            return chr(int(code, 8))
        return {"n": "\n", "r": "\r", "t": "\t", "e": "\x1b", "a": "\a", "b": "\b", "f": "\f", "v": "\v"}.get(code, code)
    return _ESCAPE.sub(one, text)


def _escape(text: str) -> str:
    out = []
    data = text.encode("utf-16-le", "surrogatepass")
    for unit in struct.unpack(f"<{len(data) // 2}H", data):
        char = chr(unit)
        if char in '\\"[]':
            out.append("\\" + char)
        elif 0x20 <= unit < 0x7F:
            out.append(char)
        else:
            out.append(f"\\x{unit:04x}")
    return "".join(out)


def text_data(text: str) -> bytes:
    return text.encode("utf-16-le", "surrogatepass") + b"\0\0"


class Value:
    """Type number and the bytes as stored."""

    def __init__(self, kind: int, data: bytes):
        self.kind = kind
        self.data = data

    def plain(self) -> object:
        """Texts as text, numbers as number, anything else as (type, hexadecimal bytes)."""
        if self.kind in (1, 2) and len(self.data) % 2 == 0 and self.data[-2:] == b"\0\0":
            return self.data[:-2].decode("utf-16-le", "surrogatepass")
        if self.kind == 4 and len(self.data) == 4:
            return struct.unpack("<I", self.data)[0]
        if self.kind == 7 and self.data[-2:] == b"\0\0":
            return [item for item in self.data.decode("utf-16-le", "surrogatepass").split("\0") if item]
        return (NAMES.get(self.kind, self.kind), self.data.hex())

    @staticmethod
    def of(value: object) -> "Value":
        """From a description: text, number, list of texts, or {type = "REG_..", hex = ".." | text = ".."}."""
        if isinstance(value, Value):
            return value
        if isinstance(value, str):
            return Value(1, text_data(value))
        if isinstance(value, bool):
            raise ValueError("a registry value is a text, a number, a list of texts or a table, not true or false")
        if isinstance(value, int):
            return Value(4, struct.pack("<I", value & 0xFFFFFFFF))
        if isinstance(value, list):
            return Value(7, b"".join(text_data(item) for item in value) + b"\0\0")
        if isinstance(value, dict):
            unknown = set(value) - {"type", "hex", "text"}
            kind = value.get("type")
            if unknown or kind not in TYPES or ("hex" in value) == ("text" in value):
                raise ValueError(f"{value}: needs a type ({', '.join(TYPES)}) and either hex or text")
            data = bytes.fromhex(value["hex"]) if "hex" in value else text_data(value["text"])
            return Value(TYPES[kind], data)
        raise ValueError(f"{value!r} is not a registry value: write a text, a number, a list of texts or a table")


def _parse_value(text: str) -> Value:
    if text.startswith('"'):
        return Value(1, text_data(_unescape(text[1:text.rindex('"')])))
    if text.startswith("dword:"):
        return Value(4, struct.pack("<I", int(text[6:], 16)))
    if text.startswith("str("):
        kind, rest = text[4:].split("):", 1)
        return Value(int(kind, 16), text_data(_unescape(rest[1:rest.rindex('"')])))
    match = re.match(r"hex(?:\(([0-9a-fA-F]+)\))?:(.*)", text, re.S)
    if not match:
        raise ValueError(f"unknown value in a registry file: {text!r}")
    return Value(int(match.group(1) or "3", 16), bytes.fromhex(match.group(2).replace(",", "")))


class Hive:
    """One file. Keys are written as in Windows, without the root's name: Software\\Tavik\\HL."""

    def __init__(self, path: pathlib.Path):
        self.path = path
        head, *sections = path.read_text("ascii", "surrogateescape").split("\n[")
        self._head = head + "\n"
        self.sections: dict[str, tuple[str, str]] = {}  # lower-case name -> (header line, body)
        # All names at once: each run of the lab reads thousands of them three times.
        parts = [section.partition("\n") for section in sections]
        texts = [header.rpartition("]")[0] for header, _, _ in parts]
        plain = "\n".join(texts).replace("\\\\", "\\").lower().split("\n")
        for text, name, (header, _, body) in zip(texts, plain, parts):
            if "\\x" in text or "\\[" in text or "\\]" in text:
                name = _unescape(text).lower()
            self.sections[name] = ("[" + header, body + "\n")
        # Wine 10 has the current control set as a link, which only Wine itself follows.
        self._is_linked = "\nsystem\\controlset001\\" in "\n" + "\n".join(self.sections)

    def _real(self, key: str) -> str:
        key = key.strip("\\")
        return CONTROL_SET.sub(r"\\ControlSet001\\", key, count=1) if self._is_linked else key

    def values(self, key: str) -> dict[str, Value] | None:
        """All values of a key, or None when there is no such key."""
        section = self.sections.get(self._real(key).lower())
        if section is None:
            return None
        found = {}
        for line in re.sub(r"\\\n\s*", "", section[1]).split("\n"):
            if line.startswith("@="):
                found[""] = _parse_value(line[2:])
            elif line.startswith('"'):
                match = re.match(r'"((?:[^"\\]|\\.)*)"=(.*)', line, re.S)
                found[_unescape(match.group(1))] = _parse_value(match.group(2))
        return found

    def set(self, key: str, name: str, value: object) -> None:
        values = self.values(key) or {}
        for known in list(values):
            if known.lower() == name.lower():
                del values[known]
        values[name] = Value.of(value)
        self._write(key, values)

    def create(self, key: str) -> None:
        if self.values(key) is None:
            self._write(key, {})

    def remove(self, key: str, name: str | None = None) -> None:
        """Removes a value, or without a name the key and all below it."""
        low = self._real(key).lower()
        if name is None:
            for known in [known for known in self.sections if known == low or known.startswith(low + "\\")]:
                del self.sections[known]
            return
        values = self.values(key)
        if values is not None:
            self._write(key, {known: value for known, value in values.items() if known.lower() != name.lower()})

    def _write(self, key: str, values: dict[str, Value]) -> None:
        key = self._real(key)
        low = key.lower()
        fresh = "[%s] 1700000000" % "\\\\".join(map(_escape, key.split("\\")))
        header = self.sections[low][0] if low in self.sections else fresh
        lines = []
        for name, value in values.items():
            start = f'"{_escape(name)}"' if name else "@"
            data = ",".join(f"{byte:02x}" for byte in value.data)
            lines.append(f"{start}=hex({value.kind:x}):{data}\n")
        self.sections[low] = (header, "".join(lines) + "\n")

    def save(self) -> None:
        """Other prefixes may share the file by hard links, so it is replaced, never written in place."""
        fresh = self.path.with_suffix(".new")
        body = "".join(f"{header}\n{text}" for header, text in self.sections.values())
        fresh.write_text(self._head + body, "ascii", "surrogateescape")
        fresh.replace(self.path)

    def below(self, *roots: str) -> dict[str, dict[str, object]]:
        """Keys at or below the roots with their values, as plain data."""
        lows = tuple(root.lower() + "\\" for root in roots)
        return {_unescape(header[1:header.rindex("]")]): {name: value.plain() for name, value in (self.values(key) or {}).items()}
                for key, (header, _) in self.sections.items() if f"{key}\\".startswith(lows)}
