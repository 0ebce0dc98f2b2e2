"""The Store edition is installed through the Store: when, in which order, what it tells and what may fail on the way."""
from __future__ import annotations

import re

import pytest

from cases.support.expect import ANOTHER, CHECKING, DOTS, FINISHED, INSTALL_FAILED, INSTALLING, inventory, opening
from cases.support.store import (ATTEMPT, CANCELED, CORVEL, DENIED, FAILED, INSTALLED, INSTALLS, NEWER, NO_DESKTOP, NO_STORE, NOTHING, OTHER,
                                 POINTER, SAME, asked, calls, check_nothing_leaks, has, package, store_only, until_query)

CONTEXT = "Windows.Services.Store.StoreContext"
BEGIN = [*until_query(), has(), ATTEMPT]
DONE = {"outcome": "store-installed", "exit_code": 0, "boxes": [FINISHED], "requests": [], "log": [*BEGIN, INSTALLED]}
NO_WINDOW = "Error: Store context does not implement IInitializeWithWindow."


def signed(code: int) -> int:
    return code - (1 << 32) if code >= 1 << 31 else code


def searching(text: str) -> str:
    return f"Exception [{text}] when searching for UWP version of VLT"


def run(lab, service: dict[str, object], arguments: str = "", **options: object):
    """A machine with an outdated Store version, and the Store as described."""
    return lab.run(store_only(package(), service=service), arguments, **options)


def check_failure(lab, outcome: str, code: int, *lines: str, held: tuple[str, ...] = ()) -> None:
    lab.check(outcome=outcome, exit_code=signed(code), boxes=[INSTALL_FAILED], requests=[], log=[*BEGIN, *lines, FAILED], after={"products": []})
    check_nothing_leaks(lab.result, *held)


# Proves: The Store installation succeeds
# Proves: The overall state is Completed
@pytest.mark.quick
def test_an_outdated_store_version_is_replaced(lab):
    result = run(lab, {"installs": INSTALLS})
    lab.check(**DONE, before={"files": []}, after={"products": [], "values": {r"Software\Orrel Technologies\Install\VLTUWPReplaced": None}})
    assert NEWER in result.store_left
    assert result.status_texts == [CHECKING, INSTALLING]
    assert not asked(result, "RemovePackage")
    assert (result.installer, result.programs) == ([], [])
    check_nothing_leaks(result)


# Proves: The Store is asked
def test_the_calls_of_an_installation_in_order(lab):
    result = run(lab, {"completion": "later:300"})
    lab.check(**DONE)
    main = calls(result)
    window = re.fullmatch(r'Initialize hwnd=0x([0-9A-F]+); window=yes; title="Tavik Software Compatibility Tool"', next(
        line for line in main if line.startswith("Initialize")))
    assert window and int(window.group(1), 16) != 0
    main[main.index(window.group(0))] = "Initialize"
    assert main[main.index(f"DllGetActivationFactory {CONTEXT}"):] == [
        f"DllGetActivationFactory {CONTEXT}", "QueryInterface StoreContextFactory IStoreContextStatics", "GetDefault",
        f"QueryInterface {CONTEXT} IInitializeWithWindow", "Initialize", f"QueryInterface {CONTEXT} IStoreContext3",
        "list QueryInterface IAgileObject", "list First", 'id "9PQ4XK7ZT2MV"', "list walked", "iterator released count=0",
        "DownloadAndInstallStorePackagesAsync", "QueryInterface StoreOperation IAsyncInfo", "StoreOperation get_Status 0",
        "handler QueryInterface own interface", "handler QueryInterface IAgileObject", "StoreOperation put_Completed",
        "StoreOperation GetResults", "get_OverallState 3", "StoreOperation destroyed"]
    assert calls(result, 2) == ["StoreOperation calls the handler, status 1", "handler Invoke"]


# The handler may be called whenever the operation likes; an operation that has ended gets none.
@pytest.mark.parametrize("completion, status, handler", [("before", 1, []), ("inside", 0, [1]), ("thread", 0, [2]), ("later:0", None, None),
                                                         ("later:50", None, None), ("later:600", 0, [2])])
def test_an_operation_that_ends_early_or_late(lab, completion, status, handler):
    result = run(lab, {"completion": completion, "installs": INSTALLS})
    lab.check(**DONE)
    assert NEWER in result.store_left
    if status is not None:
        assert f"StoreOperation get_Status {status}" in calls(result)
        assert [int(line.rpartition("=")[2]) for line in asked(result, "handler Invoke")] == handler
    check_nothing_leaks(result)


# Proves: The installation takes long
def test_a_long_installation_is_waited_for_and_the_window_lives_on(lab):
    result = run(lab, {"completion": "later:3300", "installs": INSTALLS})
    lab.check(**DONE)
    assert NEWER in result.store_left
    dots = [sample["dots"] for sample in result.status if sample["visible"] and sample["line"] == INSTALLING]
    changes = [one for one, before in zip(dots, [None, *dots]) if one != before]
    start = DOTS.index(changes[0])
    assert len(changes) >= 5 and changes == [DOTS[(start + number) % 3] for number in range(len(changes))]
    check_nothing_leaks(result)


# Proves: The list of products is read
@pytest.mark.parametrize("service", [{"walk": "iterator"}, {"walk": "getmany"}, {"walk": "iterator", "read": "late"},
                                     {"walk": "getmany", "read": "late"}])
def test_the_list_of_ids_holds_one_id_however_it_is_read(lab, service):
    result = run(lab, {**service, "completion": "later:200"})
    lab.check(**DONE)
    assert [line.partition(" thread")[0] for line in asked(result, "id ")] == ['id "9PQ4XK7ZT2MV"']
    assert [line for line in result.store_calls if line.startswith("list ") and not line.startswith("list released")] != []
    assert all(" -> 0x0 " in line for line in result.store_calls if line.startswith(("list First", "list walked", "list GetMany")))
    check_nothing_leaks(result)


# Proves: Any other overall state (canceled, other error, Wi-Fi required, ...)
@pytest.mark.parametrize("state", [0, 1, 2, 4, 5, 6, 7, 8, 9])
def test_only_the_state_completed_is_success(lab, state):
    run(lab, {"state": state, "installs": INSTALLS})
    check_failure(lab, "store-not-completed", 0xFFFFFFFF)
    assert f"get_OverallState {state}" in calls(lab.result)
    assert lab.result.store_left == [CORVEL]


# Proves: No store context, or one without windows
def test_no_store_context(lab):
    run(lab, {"default": "null"})
    check_failure(lab, "store-no-window", 0xFFFFFFFF, NO_WINDOW)


# Proves: Any call or the operation fails
def test_a_store_context_that_cannot_be_got(lab):
    run(lab, {"default": "0x80070525:There is no user."})
    check_failure(lab, "store-error", 0x80070525, searching("There is no user."))


def test_a_store_context_without_windows(lab):
    run(lab, {"window": "missing"})
    check_failure(lab, "store-no-window", 0xFFFFFFFF, NO_WINDOW)
    assert not asked(lab.result, "Initialize") and not asked(lab.result, "Download")


# Proves: The window is refused
@pytest.mark.parametrize("window, code", [("0x80070578", 0x80070578), ("0x80004005:Not this window.", 0x80004005),
                                          ("0x8007000E", 0x8007000E)])
def test_a_window_that_the_store_refuses(lab, window, code):
    run(lab, {"window": window})
    unread = "still held: ErrorInfo refs=1"  # nobody asks for this text; the thread itself keeps the object
    check_failure(lab, "store-no-window", code, "Error: Unable to initialize with window.", held=(unread,) if ":" in window else ())
    assert not asked(lab.result, "Download") and not asked(lab.result, f"QueryInterface {CONTEXT} IStoreContext3")


def test_a_system_of_before_1803(lab):
    run(lab, {"context3": False})
    check_failure(lab, "store-error", 0x80004002, searching(""))


# Proves: The Store installation fails
# Proves: The operation is canceled
@pytest.mark.parametrize("service, code, text", [
    ({"activation": "0x80040154"}, 0x80040154, ""),
    ({"activation": "0x800401F0"}, 0x800401F0, ""),
    ({"request": "0x80070005"}, 0x80070005, DENIED),
    ({"request": "0x803F8001:No licence."}, 0x803F8001, "No licence."),
    ({"request": "null"}, 0x80004003, POINTER),
    ({"results": "0x80070005:The results are secret."}, 0x80070005, "The results are secret."),
    ({"results": "null"}, 0x80004003, POINTER),
    ({"overall": "0x8000FFFF:No state."}, 0x8000FFFF, "No state."),
    ({"end": "canceled"}, 0x800704C7, CANCELED),
    ({"end": "canceled", "completion": "before"}, 0x800704C7, CANCELED),
    ({"end": "error:0x80240438:No way to the Store."}, 0x80240438, "No way to the Store."),
    ({"end": "error:0x80073CF9"}, 0x80073CF9, ""),
    ({"end": "error:0x80070005!0x80004005:Another failure's text", "completion": "inside"}, 0x80070005, DENIED),
    ({"end": "error:0x80070005=Plain text", "completion": "before"}, 0x80070005, "Plain text")])
def test_a_failure_of_the_store_becomes_the_exit_code(lab, service, code, text):
    run(lab, {"installs": INSTALLS, **service})
    check_failure(lab, "store-canceled" if text == CANCELED else "store-error", code, searching(text))


# Proves: It was canceled
def test_a_canceled_operation_is_not_asked_for_results(lab):
    run(lab, {"end": "canceled"})
    check_failure(lab, "store-canceled", 0x800704C7, searching(CANCELED))
    assert not asked(lab.result, "StoreOperation GetResults")


# Proves: Any other exception (memory)
@pytest.mark.parametrize("service", [{"request": "0x8007000E"}, {"end": "error:0x8007000E:With a text."}, {"default": "0x8007000E"}])
def test_out_of_memory_is_an_unknown_exception(lab, service):
    run(lab, service)
    check_failure(lab, "store-error", 0xFFFFFFFF, "Unknown expection occured when searching for UWP version of VLT")


# Proves: The thread has no apartment (store installation)
def test_a_thread_without_an_apartment_gets_one(lab):
    result = lab.run({"store": {"packages": [package()], "service": {"activation": "mta"}}}, "-FORCEVLTUWP")  # nobody made one before
    lab.check(outcome="store-installed", exit_code=0, boxes=[FINISHED], log=[*opening("-FORCEVLTUWP"), *inventory(), ATTEMPT, INSTALLED])
    factory = f"DllGetActivationFactory {CONTEXT}"
    assert asked(result, factory) == [f"{factory} -> 0x800401F0 thread=1", f"{factory} -> 0x0 thread=1"]


# Proves: A Windows without the Store, or before 1803 => logged, its code
def test_a_system_without_the_store(lab):
    lab.run({"desktop": False, "store": False}, "-FORCE")
    lab.check(outcome="store-error", exit_code=signed(0x80040154), boxes=[INSTALL_FAILED], log=[
        *until_query("-FORCE"), "Exception  when searching for UWP version of VLT", NOTHING, ATTEMPT, searching(""), FAILED])


# Proves: `-FORCE` with neither edition
def test_forced_with_neither_edition_installs_the_store_edition(lab):
    lab.run(store_only(package(OTHER), service={"installs": INSTALLS}), "-FORCE")
    lab.check(outcome="store-installed", exit_code=0, boxes=[FINISHED], requests=[], log=[*until_query("-FORCE"), NO_STORE, NOTHING, ATTEMPT, INSTALLED])
    assert lab.result.store_left == [OTHER, NEWER]


# Proves: Neither edition installed, forced
def test_neither_edition_counts_as_version_0_0(lab):
    release = "0.0-240101a"
    lab.run(store_only(adapters=[{"release": release}]), "-FORCE")
    lab.check(outcome="store-installed", exit_code=0, boxes=[FINISHED], log=[*until_query("-FORCE", release), NO_STORE, NOTHING, SAME, ATTEMPT, INSTALLED])


def test_forced_with_the_same_release_asks_the_store_again(lab):
    lab.run(store_only(package(version="2.24.20.0")), "-force")
    lab.check(outcome="store-installed", exit_code=0, boxes=[FINISHED], log=[*until_query("-force"), has(version="2.24.20.0"), SAME, ATTEMPT, INSTALLED])


def test_forced_to_the_store_although_the_desktop_edition_is_there(lab):
    result = lab.run({"store": {"packages": [package()], "service": {"installs": INSTALLS}}}, "-FORCEVLTUWP")
    lab.check(outcome="store-installed", exit_code=0, boxes=[FINISHED], requests=[], before={"products": ["Tavik Halden 23.40"]},
              after={"products": ["Tavik Halden 23.40"], "values": {r"Software\Tavik\HL\HLVersion": "23.40"}},
              log=[*opening("-FORCEVLTUWP"), *inventory(), ATTEMPT, INSTALLED])
    assert not asked(result, "FindPackages")
    assert (result.installer, result.programs) == ([], [])


# Proves: `-FORCEVLTUWP` with the desktop edition (of the same release, too), an installer at hand, or neither edition
def test_forced_to_the_store_with_the_desktop_edition_of_the_same_release(lab):
    lab.run({"desktop": {"release": "24.20"}, "store": {"service": {"state": 5}}}, "-forcevltuwp")
    lab.check(outcome="store-not-completed", exit_code=-1, boxes=[INSTALL_FAILED], requests=[], after={"products": ["Tavik Halden 24.20"]},
              log=[*opening("-forcevltuwp", "24.20"), *inventory(), SAME, ATTEMPT, FAILED])


def test_forced_to_the_store_with_an_installer_at_hand(lab):
    result = lab.run({"adapters": [{"packages": [{"installer": "24.20"}]}]}, "-FORCEVLTUWP")
    lab.check(outcome="store-installed", exit_code=0, boxes=[FINISHED], after={"products": ["Tavik Halden 23.40"]})
    assert not any("dwx2-install.exe" in line for line in result.log)


def test_forced_to_the_store_with_neither_edition(lab):
    lab.run(store_only(), "-FORCEVLTUWP")
    lab.check(outcome="store-installed", exit_code=0, boxes=[FINISHED], log=[*until_query("-FORCEVLTUWP"), NO_STORE, NOTHING, ATTEMPT, INSTALLED])


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
def test_a_second_instance_during_a_store_installation(lab):
    result = run(lab, {"completion": "later:2500", "installs": INSTALLS}, when=[f"text {INSTALLING} : second"])
    lab.check(**{**DONE, "outcome": "store-installed, another-instance"})
    assert NEWER in result.store_left
    assert result.instances[1]["exit_code"] == -1
    assert [(box["icon"], box["text"]) for box in result.boxes if box["instance"] == 1] == [ANOTHER]
    assert result.logs[1] == [opening()[0], "Another instance is running. Exiting."]
    assert result.instances[1]["ended"] < result.instances[0]["ended"]


def test_the_desktop_route_never_asks_the_store_service(lab):
    result = lab.run({"adapters": [{"packages": [{"installer": "24.20"}]}], "store": {"packages": [package(OTHER)]}})
    lab.check(outcome="repaired", exit_code=0, boxes=[FINISHED], requests=[], after={"products": ["Tavik Halden 24.20"]})
    assert not asked(result, f"DllGetActivationFactory {CONTEXT}") and NO_DESKTOP not in result.log
