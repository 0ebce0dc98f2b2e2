"""Names of Store packages, machines that have them, the lines of their log, and the calls into the Store component.

The driver of the common machine is of release 24.20, and a Store version 2.24.20.0 belongs to it.
"""
from __future__ import annotations

from typing import Any

from cases.support.expect import NO_DESKTOP, SAME, inventory, opening
from lab.prefix import wine_version
from lab.result import Result

# Full names. The application has two package names, and only their beginning is looked for.
CORVEL = "TavikSystemsInc-2.TavikCorvelSoftware_2.23.40.0_x64__0a9344xs7nr4m"
EARLIER = "TavikSystemsInc-2.8F31D07A2B6E4_1.22.11.0_x64__0a9344xs7nr4m"
NEWER = "TavikSystemsInc-2.TavikCorvelSoftware_2.24.20.0_x64__0a9344xs7nr4m"
INSTALLS = f"{NEWER} | 2.24.20.0"  # the Store service replaces CORVEL with this
OTHER = "Contoso.Paint_11.2404.5.0_x64__8wekyb3d8bbwe"

NO_STORE = "UWP version is not installed"
NOTHING = "User does not have VLT installed."
ATTEMPT = "Attempting to download and install the UWP version of VLT."
INSTALLED = "Successfully installed the UWP version of VLT"
FAILED = "failed to install the UWP version of VLT"
DISABLED = "\tThis version is disabled"

# Texts that the system has for codes; codes without one give an empty text.
DENIED, CANCELED, POINTER = "Access denied.", "Operation canceled by user.", ""


def numbered(number: int) -> str:
    """The full name of another package of the application."""
    return f"TavikSystemsInc-2.TavikCorvelSoftware_2.99.{number}.0_x64__0a9344xs7nr4m"


def package(name: str = CORVEL, version: str = "2.23.40.0", **options: Any) -> dict[str, Any]:
    return {"name": name, "version": version, **options}


def store_only(*packages: dict[str, Any], manager: dict[str, Any] | None = None, service: dict[str, Any] | None = None,
               **changes: Any) -> dict[str, Any]:
    """A machine without the desktop edition."""
    return {"desktop": False, "store": {"packages": list(packages), "manager": manager or {}, "service": service or {}}, **changes}


def has(name: str = CORVEL, version: str = "2.23.40.0") -> str:
    return f"User has {name} - version {version}"


def until_query(arguments: str = "", release: str | None = None) -> list[str]:
    """The log up to the search for Store packages."""
    return [*opening(arguments, version=""), *(inventory(release) if release else inventory()), NO_DESKTOP]


def calls(result: Result, thread: int | None = 1) -> list[str]:
    """The calls into the component on one thread (1 is the tool's main thread), without their results."""
    mark = f" thread={thread}"
    return [line.removesuffix(mark).removesuffix(" -> 0x0") for line in result.store_calls if line.endswith(mark)]


def asked(result: Result, what: str) -> list[str]:
    return [line for line in result.store_calls if line.startswith(what)]


def until_apartment(factory: str) -> list[str]:
    """How a component is asked that wants an apartment (activation "mta"). Wine 10 refuses the first time itself, as Windows does."""
    return [f"{factory} -> {answer} thread=1" for answer in ("0x800401F0", "0x0")[wine_version() >= 10:]]


def leaks(calls: list[str], *more: str) -> list[str]:
    """Only the factories are kept, on purpose, and only the expected methods were called."""
    ends = [line for line in calls if line.startswith(("handler released", "list released", "still held", "unused slot"))]
    allowed = {"handler released count=0", "list released count=0", "still held: PackageManagerFactory refs=1",
               "still held: StoreContextFactory refs=1", *more}
    return [line for line in ends if line not in allowed]


def check_nothing_leaks(result: Result, *more: str) -> None:
    assert leaks(result.store_calls, *more) == []
