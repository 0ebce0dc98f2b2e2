"""One check that a value from XML, JSON or YAML has a given form.

A form is a table from names to forms, in the order that XML elements must have. "name?" may be missing, "name+" is there once or more
often (a list in JSON and YAML), "@name" is an attribute, "#text" the text of an element with attributes. A text is a regular expression
for the whole value; int and bool are types; None is anything.
"""
from __future__ import annotations

import re
import xml.etree.ElementTree as ElementTree
from collections.abc import Iterator
from typing import Any

ANY = r"[\s\S]+"  # any text but the empty one


class Elements(list):
    """The elements of one name, in XML."""


def plain(element: ElementTree.Element) -> Any:
    """An XML element as JSON would have it; one without attributes and children is its text."""
    found: dict[str, Any] = {f"@{name}": value for name, value in element.attrib.items()}
    for child in element:
        found.setdefault(child.tag.rpartition("}")[2], Elements()).append(plain(child))
    if not found:
        return element.text or ""
    return {**found, "#text": element.text} if (element.text or "").strip() else found


def faults(form: Any, value: Any, place: str) -> Iterator[str]:
    if form is None:
        return
    if isinstance(form, type):
        if type(value) is not form:
            yield f"{place} is {value!r}, not {form.__name__}"
    elif isinstance(form, str):
        if not isinstance(value, str) or not re.fullmatch(form, value):
            yield f"{place} is {value!r}, which is not of the form {form}"
    elif not isinstance(value, dict):
        yield f"{place} has nothing in it: {', '.join(form)} are expected"
    else:
        known = {name.rstrip("?+"): name for name in form}
        yield from (f"{place}: {name} is unknown there" for name in value if name not in known)
        yield from (f"{place}: {name} is missing" for name, written in known.items() if name not in value and "?" not in written[-2:])
        elements = [name for name in value if isinstance(value[name], Elements) and name in known]
        if elements != [name for name in known if name in elements]:
            yield f"{place}: the order is {', '.join(elements)}, not that of {', '.join(known)}"
        for name, inner in value.items():
            many = known.get(name, "").endswith("+")
            if name not in known:
                continue
            if many != isinstance(inner, list) and not isinstance(inner, Elements) or isinstance(inner, Elements) and not many and len(inner) > 1:
                yield f"{place}: {name} must be {'a list' if many else 'there once'}"
                continue
            if many and not inner:
                yield f"{place}: {name} is empty"
            for one in inner if isinstance(inner, list) else [inner]:
                yield from faults(form[known[name]], one, f"{place}/{name}")
