"""The forms of the deployment kit's files, and one check that a value from XML, JSON or YAML has its form.

A form is a table from names to forms, in the order that XML elements must have. "name?" may be missing, "name+" is there once or more
often (a list in JSON and YAML), "@name" is an attribute, "#text" the text of an element with attributes. A text is a regular expression
for the whole value; int and bool are types.

Written by us after the public documentation of each format, and only for the parts that the kit uses: what is not listed is a
complaint, even where the format allows it. These are not the makers' own schemas, of which Debian has none.
"""
from __future__ import annotations

import json
import re
import xml.etree.ElementTree as ElementTree
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import yaml

ANY = r"[\s\S]+"  # any text but the empty one
NAME, NUMBER, FLAG = r"[A-Za-z]\w*", r"\d+\.\d+", "true|false"
STRING, REFERENCE = r"\$\(string\.\w+\)", {"@ref": NAME}
DURATION = r"P(\d+D)?(T(\d+H)?(\d+M)?(\d+S)?)?"
IDENTIFIER = r"[^.\s\\/:*?\"<>|]{1,32}(\.[^.\s\\/:*?\"<>|]{1,32}){1,7}"
VERSION, MANIFEST, LOCALE = r"\d+(\.\d+){0,3}", r"1\.\d+\.0", r"[a-z]{2,3}(-\w{2,8})*"
PACKAGE = {"PackageIdentifier": IDENTIFIER, "PackageVersion": VERSION}
TRIGGER = {"Enabled?": FLAG}

FORMS: dict[str, dict[str, Any]] = {
    "*.admx": {  # Group Policy
        "@revision": NUMBER, "@schemaVersion": NUMBER,
        "policyNamespaces": {"target": {"@prefix": NAME, "@namespace": ANY}},
        "resources": {"@minRequiredRevision": NUMBER},
        "supportedOn": {"definitions": {"definition+": {"@name": NAME, "@displayName": STRING}}},
        "categories": {"category+": {"@name": NAME, "@displayName": STRING, "parentCategory?": REFERENCE}},
        "policies": {"policy+": {
            "@name": NAME, "@class": "Machine", "@displayName": STRING, "@explainText": STRING, "@presentation": r"\$\(presentation\.\w+\)",
            "@key": r"SOFTWARE(\\[^\\]+)+",  # no hive in front: the class says which
            "parentCategory": REFERENCE, "supportedOn": REFERENCE,
            "elements": {"text+": {"@id": NAME, "@valueName": NAME, "@required?": FLAG, "@maxLength?": r"\d+"}}}}},
    "*.adml": {  # its texts
        "@revision": NUMBER, "@schemaVersion": NUMBER, "displayName": ANY, "description": ANY,
        "resources": {"stringTable": {"string+": {"@id": NAME, "#text": ANY}},
                      "presentationTable": {"presentation+": {"@id": NAME, "textBox+": {"@refId": NAME, "label": ANY}}}}},
    "TavikRepairAfterDriverUpdate.xml": {  # scheduled task
        "@version": r"1\.[2-6]",
        "RegistrationInfo": {"URI": ANY, "Description": ANY},
        "Triggers": {"EventTrigger": {**TRIGGER, "Subscription": ANY, "Delay?": DURATION},
                     "CalendarTrigger": {**TRIGGER, "StartBoundary": r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d", "RandomDelay?": DURATION,
                                         "ScheduleByDay": {"DaysInterval": r"\d{1,3}"}}},
        "Principals": {"Principal": {"@id": NAME, "UserId": ANY, "RunLevel": "LeastPrivilege|HighestAvailable"}},
        "Settings": {"MultipleInstancesPolicy": "Parallel|Queue|IgnoreNew|StopExisting", "DisallowStartIfOnBatteries": FLAG,
                     "StopIfGoingOnBatteries": FLAG, "StartWhenAvailable": FLAG, "RunOnlyIfNetworkAvailable": FLAG, "ExecutionTimeLimit": DURATION},
        "Actions": {"@Context": NAME, "Exec": {"Command": ANY, "Arguments": ANY}}},
    "app.json": {  # a Win32 app of Intune, as its Graph interface takes it
        "@odata.type": r"#microsoft\.graph\.win32LobApp", "displayName": ANY, "description": ANY, "publisher": ANY,
        "fileName": r".+\.intunewin", "setupFilePath": ANY, "installCommandLine": ANY, "uninstallCommandLine": ANY,
        "applicableArchitectures": "x64", "minimumSupportedWindowsRelease": "1[6-9]0[0-9]|2[0-9]H[12]|Windows11_.*",
        "installExperience": {"@odata.type": r"#microsoft\.graph\.win32LobAppInstallExperience", "runAsAccount": "system|user",
                              "deviceRestartBehavior": "basedOnReturnCode|allow|suppress|force", "maxRunTimeInMinutes": int},
        "returnCodes+": {"@odata.type": r"#microsoft\.graph\.win32LobAppReturnCode", "returnCode": int,
                         "type": "failed|success|softReboot|hardReboot|retry"},
        "rules+": {"@odata.type": r"#microsoft\.graph\.win32LobAppPowerShellScriptRule", "ruleType": "detection|requirement", "displayName?": ANY,
                   "enforceSignatureCheck": bool, "runAs32Bit": bool, "runAsAccount?": "system|user",
                   "operationType": "notConfigured|string|dateTime|integer|float|version|boolean", "comparisonValue?": ANY,
                   "operator": "notConfigured|equal|notEqual|(greater|less)Than(OrEqual)?", "scriptContent": ANY}},
    "*.SoftwareRepair.yaml": {**PACKAGE, "DefaultLocale": LOCALE, "ManifestType": "version", "ManifestVersion": MANIFEST},  # winget
    "*.SoftwareRepair.locale.*.yaml": {
        **PACKAGE, "PackageLocale": LOCALE, "Publisher": ".{2,256}", "PackageName": ".{2,256}", "License": ".{3,512}", "ShortDescription": ".{3,256}",
        "ManifestType": "defaultLocale", "ManifestVersion": MANIFEST},
    "*.SoftwareRepair.installer.yaml": {
        **PACKAGE, "MinimumOSVersion?": VERSION, "Platform+": r"Windows\.Desktop", "InstallerType": "zip", "NestedInstallerType": "exe",
        "NestedInstallerFiles+": {"RelativeFilePath": ".{1,512}"}, "Scope?": "user|machine",
        "ElevationRequirement?": "elevationRequired|elevationProhibited|elevatesSelf", "InstallModes+": "interactive|silent|silentWithProgress",
        "InstallerSwitches": {"Silent": ".{1,512}", "SilentWithProgress": ".{1,512}"},
        "ExpectedReturnCodes+": {"InstallerReturnCode": int, "ReturnResponse": "packageInUse|installInProgress|fileInUse|missingDependency|"
                                 "diskFull|insufficientMemory|noNetwork|contactSupport|rebootRequiredToFinish|rebootRequiredForInstall|"
                                 "rebootInitiated|cancelledByUser|alreadyInstalled|downgrade|blockedByPolicy|systemNotSupported|custom"},
        "Installers+": {"Architecture": "x64", "InstallerUrl": r"https?://\S+\.zip", "InstallerSha256": "[A-Fa-f0-9]{64}"},
        "ManifestType": "installer", "ManifestVersion": MANIFEST},
}


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


def complaints(folder: Path) -> Iterator[str]:
    """Where files below this folder differ from their form."""
    for pattern, form in FORMS.items():
        found = sorted(folder.rglob(pattern))
        if not found:
            yield f"there is no file {pattern}"
        for file in found:
            read = {".json": json.loads, ".yaml": yaml.safe_load}.get(file.suffix, lambda text: plain(ElementTree.fromstring(text.encode())))
            try:
                yield from faults(form, read(file.read_text("utf-8")), file.name)
            except (ValueError, yaml.YAMLError, ElementTree.ParseError) as error:
                yield f"{file.name}: {error}"
