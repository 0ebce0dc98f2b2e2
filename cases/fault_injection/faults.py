"""With which codes calls fail, and how a step of the Store is made to fail. What follows from a failure is in model.py."""
from __future__ import annotations

import dataclasses

# Function, or the beginning of several names: the longest one that fits counts.
CODES: dict[str, tuple[int, ...]] = {
    "setupapi!SetupDi": (5, 13, 1168, 0xE000020B),  # the last one is SetupAPI's own
    "setupapi!SetupDiEnum": (259, 5, 0xE000020B),
    "setupapi!Setup": (5, 2, 0xE0000102),
    "msi!": (259, 1605, 1610, 14),  # 259 ends a list of products, no other code does
    "msi!MsiGetProductInfoW": (1605, 1608, 234),
    "msi!MsiInstallProductW": (1603, 1618, 1605, 259, 3010, 1641),
    "wtsapi32!": (5, 1359, 7022),
    "wininet!": (12002, 12029, 12030, 14),
    "wininet!InternetReadFile": (12002, 12029, 12030, 12152, 12003),
}
EXTENDED = 12003             # with this code the tool asks for the server's own message
REBOOT = (1641, 3010, 3011)  # success that wants a restart: the real call is made as well
NO_RESULT = ("setupapi!SetupCloseInfFile", "wtsapi32!WTSFreeMemory")  # the tool cannot see these fail

E_MEMORY = 0x8007000E
HRESULTS = (0x80070005, 0x80004005, 0x80073CF1, E_MEMORY)
CANCELED = (0x800704C7,)
TEXT = "Injected."  # text of the error object; every other code gets one


def codes(function: str) -> tuple[int, ...]:
    return CODES[max((name for name in CODES if function.startswith(name)), key=len)]


@dataclasses.dataclass(frozen=True)
class Step:
    """A step of the package manager or the Store: where its failure is written in store.txt, and how."""
    name: str      # in the id of a run
    place: str     # manager, package or service
    key: str
    value: str     # {failure}: a code with or without a text, {call}: the number of the call
    recorded: str  # start of the line that the stand-in records when the step fails
    codes: tuple[int, ...] = HRESULTS


def _of_a_package(**recorded: str) -> tuple[Step, ...]:
    return tuple(Step(method, "package", "fail", method + ":{failure}", line or method) for method, line in recorded.items())


ACTIVATE = "DllGetActivationFactory Windows."
STEPS = (
    Step("activation", "manager", "activation", "{failure}", ACTIVATE + "Management.Deployment.PackageManager"),
    Step("create", "manager", "create", "{failure}", "ActivateInstance"),
    Step("find", "manager", "find", "{failure}", "FindPackages"),
    Step("first", "manager", "first", "{failure}", "First"),
    Step("next", "manager", "next", "{call}:{failure}", "MoveNext"),
    Step("current", "manager", "current", "{call}:{failure}", "get_Current"),
    *_of_a_package(get_Id="", get_FullName="", get_Version="", IPackage3="QueryInterface Package IPackage3", get_Status="",
                   VerifyIsOK="", RemovePackageAsync="RemovePackageWithOptionsAsync",
                   put_Completed="DeploymentOperation put_Completed", GetResults="DeploymentOperation GetResults",
                   get_ErrorText="", get_ExtendedErrorCode=""),
    Step("removal", "package", "removal", "{failure}", "get_ExtendedErrorCode -> 0x0 "),
    Step("removal ends", "package", "removal_end", "error:{failure}", "DeploymentOperation GetResults"),
    Step("removal canceled", "package", "removal_end", "canceled", "DeploymentOperation calls the handler, status 2", CANCELED),
    Step("store activation", "service", "activation", "{failure}", ACTIVATE + "Services.Store.StoreContext"),
    Step("default", "service", "default", "{failure}", "GetDefault"),
    Step("window", "service", "window", "{failure}", "Initialize"),
    Step("request", "service", "request", "{failure}", "DownloadAndInstallStorePackagesAsync"),
    Step("results", "service", "results", "{failure}", "StoreOperation GetResults"),
    Step("overall", "service", "overall", "{failure}", "get_OverallState"),
    Step("store ends", "service", "end", "error:{failure}", "StoreOperation GetResults"),
    Step("store canceled", "service", "end", "canceled", "StoreOperation calls the handler, status 2", CANCELED),
    Step("state", "service", "state", "{code}", "get_OverallState {code} ", (0, 1, 4, 5, 6, 8)),
)
