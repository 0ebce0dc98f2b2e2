"""The Store edition is installed through the Store: when, in which order, what the Store is told and what may fail on the way."""
from __future__ import annotations

import re

import pytest

from cases.support.direct import MARKER
from cases.support.expect import (CHECKING, DOTS, FINISHED, HL_VERSION, INSTALL_FAILED, INSTALLING, NO_DESKTOP, SAME, UNTOUCHED, check_refused,
                                  inventory, opening)
from cases.support.repair import found
from cases.support.store import (ATTEMPT, CANCELED, CORVEL, DENIED, FAILED, INSTALLED, INSTALLS, NEWER, NO_STORE, NOTHING, OTHER, POINTER, asked,
                                 calls, check_nothing_leaks, has, package, store_only, until_apartment, until_query)

CONTEXT = "Windows.Services.Store.StoreContext"
CONTEXT3 = f"QueryInterface {CONTEXT} IStoreContext3"
BEGIN = [*until_query(), has(), ATTEMPT]
SUCCESS = {"outcome": "store-installed", "exit_code": 0, "boxes": [FINISHED], "requests": []}
DONE = {**SUCCESS, "log": [*BEGIN, INSTALLED]}
NO_WINDOW = "Error: Store context does not implement IInitializeWithWindow."
NOT_INITIALIZED = "Error: Unable to initialize with window."
UNKNOWN = "Unknown expection occured when searching for UWP version of VLT"


def signed(code: int) -> int:
    return code - (1 << 32) if code >= 1 << 31 else code


def searching(text: str) -> str:
    return f"Exception [{text}] when searching for UWP version of VLT"


def run(lab, service: dict[str, object], arguments: str = "", **options: object):
    """A machine with an outdated Store version, and the Store as described."""
    return lab.run(store_only(package(), service=service), arguments, **options)


def check_done(lab) -> None:
    lab.check(**DONE)
    assert NEWER in lab.result.store_left
    check_nothing_leaks(lab.result)


# Proves: The Store installation succeeds
# Proves: The overall state is Completed => 0
@pytest.mark.quick
def test_outdated_store_version_is_replaced(lab):
    result = run(lab, {"installs": INSTALLS})
    check_done(lab)
    assert (result.after.products, result.after.value(*MARKER.rsplit("\\", 1))) == ([], None)
    assert result.status_texts == [CHECKING, INSTALLING]
    assert not asked(result, "RemovePackage")
    assert (result.installer, result.programs) == ([], [])


# Proves: The Store is asked
def test_calls_of_an_installation_in_order(lab):
    result = run(lab, {"completion": "later:300"})
    lab.check(**DONE)
    main = calls(result)
    window = re.fullmatch(r'Initialize hwnd=0x([0-9A-F]+); window=yes; title="Tavik Software Compatibility Tool"', next(
        line for line in main if line.startswith("Initialize")))
    assert window and int(window.group(1), 16) != 0
    main[main.index(window.group(0))] = "Initialize"
    assert main[main.index(f"DllGetActivationFactory {CONTEXT}"):] == [
        f"DllGetActivationFactory {CONTEXT}", "QueryInterface StoreContextFactory IStoreContextStatics", "GetDefault",
        f"QueryInterface {CONTEXT} IInitializeWithWindow", "Initialize", CONTEXT3,
        "list QueryInterface IAgileObject", "list First", 'id "9PQ4XK7ZT2MV"', "list walked", "iterator released count=0",
        "DownloadAndInstallStorePackagesAsync", "QueryInterface StoreOperation IAsyncInfo", "StoreOperation get_Status 0",
        "handler QueryInterface own interface", "handler QueryInterface IAgileObject", "StoreOperation put_Completed",
        "StoreOperation GetResults", "get_OverallState 3", "StoreOperation destroyed"]
    assert calls(result, 2) == ["StoreOperation calls the handler, status 1", "handler Invoke"]


# The operation may call the handler at any time; one that has ended does not call it.
@pytest.mark.parametrize("completion, status, handler", [("before", 1, []), ("inside", 0, [1]), ("thread", 0, [2]), ("later:0", None, None),
                                                         ("later:50", None, None), ("later:600", 0, [2])])
def test_operation_that_ends_early_or_late(lab, completion, status, handler):
    result = run(lab, {"completion": completion, "installs": INSTALLS})
    check_done(lab)
    if status is not None:
        assert f"StoreOperation get_Status {status}" in calls(result)
        assert [int(line.rpartition("=")[2]) for line in asked(result, "handler Invoke")] == handler


# Proves: The installation takes long => it is waited for, the window lives on
def test_window_is_alive_during_a_long_installation(lab):
    result = run(lab, {"completion": "later:3300", "installs": INSTALLS})
    check_done(lab)
    dots = [sample["dots"] for sample in result.status if sample["visible"] and sample["line"] == INSTALLING]
    changes = [one for one, before in zip(dots, [None, *dots]) if one != before]
    start = DOTS.index(changes[0])
    assert len(changes) >= 5 and changes == [DOTS[(start + number) % 3] for number in range(len(changes))]


# Proves: The list of products is read
@pytest.mark.parametrize("service", [{"walk": "iterator"}, {"walk": "getmany"}, {"walk": "iterator", "read": "late"},
                                     {"walk": "getmany", "read": "late"}])
def test_list_of_ids_holds_one_id_however_it_is_read(lab, service):
    result = run(lab, {**service, "completion": "later:200"})
    lab.check(**DONE)
    assert [line.partition(" thread")[0] for line in asked(result, "id ")] == ['id "9PQ4XK7ZT2MV"']
    assert [line for line in result.store_calls if line.startswith("list ") and not line.startswith("list released")] != []
    assert all(" -> 0x0 " in line for line in result.store_calls if line.startswith(("list First", "list walked", "list GetMany")))
    check_nothing_leaks(result)


# Failures

def check_failure(lab, outcome: str, code: int, *lines: str, held: tuple[str, ...] = ()) -> None:
    lab.check(outcome=outcome, exit_code=signed(code), boxes=[INSTALL_FAILED], requests=[], log=[*BEGIN, *lines, FAILED], after={"products": []})
    check_nothing_leaks(lab.result, *held)


# Proves: Any other overall state (canceled, other error, Wi-Fi required, ...) => -1, nothing is logged here
@pytest.mark.parametrize("state", [0, 1, 2, 4, 5, 6, 7, 8, 9])
def test_only_the_state_completed_is_success(lab, state):
    run(lab, {"state": state, "installs": INSTALLS})
    check_failure(lab, "store-not-completed", 0xFFFFFFFF)
    assert f"get_OverallState {state}" in calls(lab.result)
    assert lab.result.store_left == [CORVEL]


# Proves: No store context, or one without windows => "Store context does not implement ..." is logged, -1
# Proves: The window is refused => "Unable to initialize with window." is logged, that code; the Store is not asked
# Proves: Any call or the operation fails
# Proves: The Store installation fails => logged, box "Error installing Tavik Software.", its result is the exit code
# Proves: The operation is canceled => logged with the text of the cancellation, its code
# Proves: It was canceled
# Proves: Any other exception (memory)
@pytest.mark.parametrize("service, outcome, code, line, missing_call", [
    ({"default": "null"}, "store-no-window", 0xFFFFFFFF, NO_WINDOW, "Initialize"),
    ({"window": "missing"}, "store-no-window", 0xFFFFFFFF, NO_WINDOW, "Initialize"),
    ({"window": "0x80070578"}, "store-no-window", 0x80070578, NOT_INITIALIZED, CONTEXT3),
    ({"window": "0x80004005:Not this window."}, "store-no-window", 0x80004005, NOT_INITIALIZED, CONTEXT3),
    ({"window": "0x8007000E"}, "store-no-window", 0x8007000E, NOT_INITIALIZED, CONTEXT3),
    ({"activation": "0x80040154"}, "store-error", 0x80040154, searching(""), "GetDefault"),
    ({"activation": "0x800401F0"}, "store-error", 0x800401F0, searching(""), "GetDefault"),
    ({"default": "0x80070525:There is no user."}, "store-error", 0x80070525, searching("There is no user."), "Initialize"),
    ({"context3": False}, "store-error", 0x80004002, searching(""), "Download"),  # Windows before 1803
    ({"request": "0x80070005"}, "store-error", 0x80070005, searching(DENIED), "StoreOperation"),
    ({"request": "0x803F8001:No licence."}, "store-error", 0x803F8001, searching("No licence."), "StoreOperation"),
    ({"request": "null"}, "store-error", 0x80004003, searching(POINTER), "StoreOperation"),
    ({"results": "0x80070005:The results are secret."}, "store-error", 0x80070005, searching("The results are secret."), "get_OverallState"),
    ({"results": "null"}, "store-error", 0x80004003, searching(POINTER), "get_OverallState"),
    ({"overall": "0x8000FFFF:No state."}, "store-error", 0x8000FFFF, searching("No state."), None),
    ({"end": "canceled"}, "store-canceled", 0x800704C7, searching(CANCELED), "StoreOperation GetResults"),
    ({"end": "canceled", "completion": "before"}, "store-canceled", 0x800704C7, searching(CANCELED), "StoreOperation GetResults"),
    ({"end": "error:0x80240438:No way to the Store."}, "store-error", 0x80240438, searching("No way to the Store."), None),
    ({"end": "error:0x80073CF9"}, "store-error", 0x80073CF9, searching(""), None),
    ({"end": "error:0x80070005!0x80004005:Another failure's text", "completion": "inside"}, "store-error", 0x80070005, searching(DENIED), None),
    ({"end": "error:0x80070005=Plain text", "completion": "before"}, "store-error", 0x80070005, searching("Plain text"), None),
    ({"default": "0x8007000E"}, "store-error", 0xFFFFFFFF, UNKNOWN, "Initialize"),
    ({"request": "0x8007000E"}, "store-error", 0xFFFFFFFF, UNKNOWN, "StoreOperation"),
    ({"end": "error:0x8007000E:With a text."}, "store-error", 0xFFFFFFFF, UNKNOWN, None)],
    ids=lambda value: str(value) if isinstance(value, dict) else "")
def test_failure_of_the_store_becomes_the_exit_code(lab, service, outcome, code, line, missing_call):
    """missing_call: a call that the tool must not make after the failure."""
    run(lab, {"installs": INSTALLS, **service})
    unread = "still held: ErrorInfo refs=1"  # the tool never reads this text, so the thread keeps the object
    check_failure(lab, outcome, code, line, held=(unread,) if "Not this window" in str(service) else ())
    assert not missing_call or not asked(lab.result, missing_call)
    assert line != NOT_INITIALIZED or not asked(lab.result, "Download")


# Proves: The thread has no apartment (store installation) => it gets one
def test_thread_without_an_apartment_gets_one(lab):
    """No earlier call of the run creates an apartment."""
    result = lab.run({"store": {"packages": [package()], "service": {"activation": "mta"}}}, "-FORCEVLTUWP")
    lab.check(**SUCCESS, log=[*opening("-FORCEVLTUWP"), *inventory(), ATTEMPT, INSTALLED])
    factory = f"DllGetActivationFactory {CONTEXT}"
    assert asked(result, factory) == until_apartment(factory)


# Proves: A Windows without the Store, or before 1803 => logged, its code
def test_system_without_the_store(lab):
    lab.run({"desktop": False, "store": False}, "-FORCE")
    lab.check(outcome="store-error", exit_code=signed(0x80040154), boxes=[INSTALL_FAILED], log=[
        *until_query("-FORCE"), "Exception  when searching for UWP version of VLT", NOTHING, ATTEMPT, searching(""), FAILED])


# Forced

ZEROS = "0.0-240101a"


# Proves: `-FORCE` with neither edition => the Store edition is installed
# Proves: Neither edition installed, forced
@pytest.mark.parametrize("arguments, packages, release, lines", [
    ("-FORCE", [package(OTHER)], None, [NO_STORE, NOTHING]),
    ("-FORCE", [], ZEROS, [NO_STORE, NOTHING, SAME]),
    ("-force", [package(version="2.24.20.0")], None, [has(version="2.24.20.0"), SAME]),
    ("-FORCEVLTUWP", [], None, [NO_STORE, NOTHING])],
    ids=["neither edition", "neither counts as version 0.0", "same release", "to the Store, neither edition"])
def test_forced_without_the_desktop_edition_installs_the_store_edition(lab, arguments, packages, release, lines):
    result = lab.run(store_only(*packages, service={"installs": INSTALLS}, **({"adapters": [{"release": release}]} if release else {})), arguments)
    lab.check(**SUCCESS, log=[*until_query(arguments, release), *lines, ATTEMPT, INSTALLED])
    assert NEWER in result.store_left


# Proves: `-FORCEVLTUWP` with the desktop edition (of the same release, too), an installer at hand, or neither edition => the Store edition is installed
@pytest.mark.parametrize("arguments, desktop, state, lines", [
    ("-FORCEVLTUWP", "23.40", 3, []), ("-forcevltuwp", "24.20", 5, [SAME])], ids=["other release", "same release, not completed"])
def test_forced_to_the_store_although_the_desktop_edition_is_there(lab, arguments, desktop, state, lines):
    """An installer at hand is not used."""
    result = lab.run(found(desktop={"release": desktop}, store={"packages": [package()], "service": {"state": state}}), arguments)
    end = SUCCESS if state == 3 else {"outcome": "store-not-completed", "exit_code": -1, "boxes": [INSTALL_FAILED], "requests": []}
    lab.check(**end, after={"products": [f"Tavik Halden {desktop}"], "values": {HL_VERSION: desktop}},
              log=[*opening(arguments, desktop), *inventory(), *lines, ATTEMPT, INSTALLED if state == 3 else FAILED])
    assert not asked(result, "FindPackages")
    assert (result.installer, result.programs) == ([], [])


@pytest.mark.parametrize("service, outcome, code, last", [
    ({}, "store-installed", 0, INSTALLED), ({"window": "0x80070578"}, "store-no-window", 0x80070578, FAILED)])
def test_silent_shows_nothing_and_still_hands_the_window_over(lab, service, outcome, code, last):
    result = run(lab, {"completion": "later:200", **service}, "-SILENT")
    lab.check(outcome=outcome, exit_code=signed(code), boxes=[])
    assert result.log[0] == opening("-SILENT")[0] and result.log[-1] == last
    assert not any(sample["visible"] for sample in result.status)
    assert result.status_texts == [CHECKING]
    assert [re.sub("0x[0-9A-F]{2,}", "0x", line).partition(" ->")[0] for line in asked(result, "Initialize")] == [
        'Initialize hwnd=0x; window=yes; title="Tavik Software Compatibility Tool"']


# Proves: The tool is started again meanwhile => that instance is refused
def test_second_instance_during_a_store_installation(lab):
    result = run(lab, {"completion": "later:2500", "installs": INSTALLS}, when=[f"text {INSTALLING} : second"])
    lab.check(**{**DONE, "outcome": "store-installed, another-instance"})
    assert NEWER in result.store_left
    check_refused(result)
    assert result.instances[1]["ended"] < result.instances[0]["ended"]


def test_repair_of_the_desktop_edition_never_asks_the_store_service(lab):
    result = lab.run(found(store={"packages": [package(OTHER)]}))
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], requests=[], before=UNTOUCHED, after={"products": ["Tavik Halden 24.20"]})
    assert not asked(result, f"DllGetActivationFactory {CONTEXT}") and NO_DESKTOP not in result.log
