"""What may fail, with which codes, and what that may lead to: one row for each function and each step of the Store.

A row is what a supporter would read: the line that the failure leaves in the log, and how the run may end. The exact log
of each run is worked out by model.py; this table is a second opinion that knows nothing of the order of things.
"""
from __future__ import annotations

import dataclasses

# How a run may end. GOOD: as if nothing had failed; the others as ENDS in judge.py says.
GOOD, NO_ADAPTER, NOT_INSTALLED, NO_DOWNLOAD, NO_MAIN, CODE, STORE_DONE, STORE_CODE, STORE_FAILED, QUIET, SAME = (
    "good", "no adapter", "not installed", "no download", "no main package", "the code", "Store edition installed",
    "Store: the code", "Store: -1", "quiet end", "same release")

DENIED, INVALID, NOT_FOUND, NO_DEVICE = 5, 13, 1168, 0xE000020B  # the last one is SetupAPI's own
DEVICE = (DENIED, INVALID, NOT_FOUND, NO_DEVICE)
NET = (12002, 12029, 12030)
NO_MORE = 259


@dataclasses.dataclass(frozen=True)
class Row:
    codes: tuple[int, ...]
    ends: tuple[str, ...]
    line: str = ""          # {hresult}, {code} and {url} are filled in; empty: the failure is not mentioned
    how: str = "error"      # "after": the real call is made as well
    always: bool = True     # false: the line comes with some of the calls only (a missing description is not mentioned)


# A package whose INF is not found, or read without its release, is not the active one: the driver folder stays unknown.
LOST_FOLDER = (GOOD, NO_DOWNLOAD)
# The adapter does not count: perhaps another one does, with a release of its own.
LOST_ADAPTER = (GOOD, NO_ADAPTER, NO_DOWNLOAD, SAME)

ROWS = {
    "setupapi!SetupDiGetClassDevsW": Row(DEVICE, (NO_ADAPTER,), "Failed to call SetupDiGetClassDevs {hresult}  {any}"),
    "setupapi!SetupDiEnumDeviceInfo": Row((NO_MORE, DENIED, NO_DEVICE), LOST_ADAPTER),
    "setupapi!SetupDiGetDeviceInstanceIdW": Row(DEVICE, LOST_ADAPTER,
                                                "Failed to call SetupDiGetDeviceInstanceId {hresult}  {any}"),
    "setupapi!SetupDiGetDeviceRegistryPropertyW": Row(
        DEVICE, LOST_ADAPTER, "Failed to get SPDRP_DRIVER for {any}: {number}  {any}", always=False),
    "setupapi!SetupDiGetDevicePropertyW": Row(
        DEVICE, (GOOD,), "Unable to get DEVPKEY_Device_ProblemCode property: {signed} {any}"),
    "setupapi!SetupDiBuildDriverInfoList": Row((DENIED, NO_DEVICE, 14), LOST_FOLDER),
    "setupapi!SetupDiEnumDriverInfoW": Row((NO_MORE, DENIED, INVALID), LOST_FOLDER),
    "setupapi!SetupDiGetDriverInfoDetailW": Row((DENIED, INVALID, NOT_FOUND), LOST_FOLDER),
    "setupapi!SetupGetInfDriverStoreLocationW": Row((DENIED, 2, NOT_FOUND), LOST_FOLDER),
    "setupapi!SetupOpenInfFileW": Row((DENIED, 2, 0xE0000100), LOST_FOLDER),
    "setupapi!SetupFindFirstLineW": Row((0xE0000102, DENIED), LOST_FOLDER),
    "setupapi!SetupFindNextLine": Row((0xE0000102, DENIED), LOST_FOLDER),
    "setupapi!SetupGetLineTextW": Row((122, INVALID), LOST_FOLDER),
    "setupapi!SetupDiDestroyDeviceInfoList": Row((6, DENIED), (GOOD,)),
    # Windows Installer. A result of 259 ends a list of products, any other one does not.
    "msi!MsiSetInternalUI": Row((DENIED, 1359), (GOOD,), how="after"),
    "msi!MsiEnumRelatedProductsW": Row((NO_MORE, 1605, 1610, 14), (GOOD, NOT_INSTALLED, STORE_DONE)),
    "msi!MsiGetProductInfoW": Row((1605, 1608, 234), (GOOD, NOT_INSTALLED, STORE_DONE)),
    "msi!MsiInstallProductW": Row((1603, 1618, 1605, NO_MORE), (GOOD, CODE, QUIET), "\tResult = {code}"),
    "wtsapi32!WTSQuerySessionInformationW": Row((DENIED, 1359, 7022), (GOOD, NO_MAIN, QUIET)),
    # The download.
    "wininet!InternetCrackUrlW": Row((12005, 12006, 14), (NO_DOWNLOAD,), "Unable to crack URL: {url}. Error = {code}"),
    "wininet!InternetOpenW": Row((*NET, 14), (NO_DOWNLOAD,), "\tException occured during the download of dwx2_install.exe. "
                                                             "Unable to open internet connection: {any}"),
    "wininet!InternetConnectW": Row((*NET, 14), (NO_DOWNLOAD,), "\tException occured during the download of dwx2_install.exe. "
                                                                "Unable to connect to server: {any}"),
    "wininet!HttpOpenRequestW": Row((*NET, 14), (NO_DOWNLOAD,), "Unable to call HttpOpenRequest to {url}. Error {code}"),
    "wininet!InternetSetOptionW": Row((*NET, 12009), (GOOD,)),
    "wininet!HttpSendRequestW": Row((*NET, 12007), (NO_DOWNLOAD,), "Unable to call HttpSendRequest to {url}. Error {code}"),
    "wininet!HttpQueryInfoW": Row((*NET, 12150), (NO_DOWNLOAD,), "Unable to create query response code from {url}. "
                                                                 "Error code: {code} {any}"),
    "wininet!InternetReadFile": Row((*NET, 12152), (NO_DOWNLOAD,), "Download failed with error code: {code} {any}"),
    "wininet!InternetCloseHandle": Row((6, 12018), (GOOD,), how="after"),
}
# With this code the server's own words are asked for.
EXTENDED = 12003
EXTENDED_ROW = Row((EXTENDED,), (NO_DOWNLOAD,), "Unable to read file from internet. Extended error code: {number} {any}")

# Functions without a result: nothing tells the tool that they failed.
CANNOT_FAIL = ("setupapi!SetupCloseInfFile", "wtsapi32!WTSFreeMemory")

E_MEMORY = 0x8007000E
HRESULTS = (0x80070005, 0x80004005, 0x80073CF1, E_MEMORY)
TEXT = "Injected."  # of the error object that comes with a code; the odd ones come without


@dataclasses.dataclass(frozen=True)
class Step:
    """A step of the package manager or the Store: where its failure is written in store.txt, and how."""
    name: str               # in the id of a run
    place: str              # manager, package or service
    key: str
    value: str              # {failure}: a code with or without a text, {call}: the number of the call
    recorded: str           # begin of the line that the component writes when it fails
    ends: tuple[str, ...]
    line: str = "{any} when searching for UWP version of VLT"  # what the log says about it
    codes: tuple[int, ...] = HRESULTS


ENUMERATING = "{any} when enumerating info for {any}"
QUERY = (GOOD, NOT_INSTALLED, STORE_DONE)
ACTIVATE = "DllGetActivationFactory Windows."
CANCELED = (0x800704C7,)
STEPS = (
    Step("activation", "manager", "activation", "{failure}", ACTIVATE + "Management.Deployment.PackageManager", QUERY),
    Step("create", "manager", "create", "{failure}", "ActivateInstance", QUERY),
    Step("find", "manager", "find", "{failure}", "FindPackages", QUERY),
    Step("first", "manager", "first", "{failure}", "First", QUERY),
    Step("next", "manager", "next", "{call}:{failure}", "MoveNext", QUERY),
    Step("current", "manager", "current", "{call}:{failure}", "get_Current", QUERY),
    *(Step(method, "package", "fail", method + ":{failure}", recorded, QUERY, ENUMERATING)
      for method, recorded in (("get_Id", "get_Id"), ("get_FullName", "get_FullName"), ("get_Version", "get_Version"),
                               ("IPackage3", "QueryInterface Package IPackage3"), ("get_Status", "get_Status"),
                               ("VerifyIsOK", "VerifyIsOK"))),
    *(Step(method, "package", "fail", method + ":{failure}", recorded, (GOOD,), ENUMERATING)
      for method, recorded in (("RemovePackageAsync", "RemovePackageWithOptionsAsync"),
                               ("put_Completed", "DeploymentOperation put_Completed"),
                               ("GetResults", "DeploymentOperation GetResults"), ("get_ErrorText", "get_ErrorText"),
                               ("get_ExtendedErrorCode", "get_ExtendedErrorCode"))),
    Step("removal", "package", "removal", "{failure}", "get_ExtendedErrorCode -> 0x0 ", (GOOD,), "\t Result = {code} {any}"),
    Step("removal ends", "package", "removal_end", "error:{failure}", "DeploymentOperation GetResults", (GOOD,), ENUMERATING),
    Step("removal canceled", "package", "removal_end", "canceled", "DeploymentOperation calls the handler, status 2", (GOOD,),
         ENUMERATING, CANCELED),
    Step("store activation", "service", "activation", "{failure}", ACTIVATE + "Services.Store.StoreContext",
         (STORE_CODE, STORE_FAILED)),
    Step("default", "service", "default", "{failure}", "GetDefault", (STORE_CODE, STORE_FAILED)),
    Step("window", "service", "window", "{failure}", "Initialize", (STORE_CODE,), "Error: Unable to initialize with window."),
    Step("request", "service", "request", "{failure}", "DownloadAndInstallStorePackagesAsync", (STORE_CODE, STORE_FAILED)),
    Step("results", "service", "results", "{failure}", "StoreOperation GetResults", (STORE_CODE, STORE_FAILED)),
    Step("overall", "service", "overall", "{failure}", "get_OverallState", (STORE_CODE, STORE_FAILED)),
    Step("store ends", "service", "end", "error:{failure}", "StoreOperation GetResults", (STORE_CODE, STORE_FAILED)),
    Step("store canceled", "service", "end", "canceled", "StoreOperation calls the handler, status 2", (STORE_CODE,),
         codes=CANCELED),
    Step("state", "service", "state", "{code}", "get_OverallState {code} ", (STORE_FAILED,), "", (0, 1, 4, 5, 6, 8)),
)
