"""Checks the files of the deployment kit (deploy/) without running them: their forms, and that they fit the product.

    tools.deployment_check           what Debian has a validator for, and our own rules
    tools.deployment_check --full    also the PowerShell scripts with a parser

--full needs the Debian packages nodejs and npm; it names what is missing and fetches the parser (npm: web-tree-sitter,
tree-sitter-powershell) into build/check. Each complaint is one line; without any the exit code is 0.
tools/tests/test_deployment_check.py shows for every rule that it can fail.
"""
from __future__ import annotations

import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ElementTree
from collections.abc import Iterator
from pathlib import Path

import yaml

from tools import deployment_forms
from tools.project import TOP

POLICY = "{http://schemas.microsoft.com/GroupPolicy/2006/07/PolicyDefinitions}"
TASK = "{http://schemas.microsoft.com/windows/2004/02/mit/task}"

# What every recipe tells its deployment system, which is also what TavikToolCompanion.exe ends with.
CODES = {"success": 0, "restart": 3010, "retry": 1618, "failed": 1603}
WITHOUT_CODES = {"mirror", "policy", "powershell", "task"}  # folders that tell no deployment system what a code means
PARSER = {"web-tree-sitter": "0.27.1", "tree-sitter-powershell": "0.26.4"}
YAMLLINT = "{extends: default, rules: {line-length: {max: 140}, document-start: disable}}"
LONGEST_SCRIPT = 15  # lines; a script only starts programs, what decides is in the companion
COMMANDS = {"Test-Path", "Get-Content", "New-CMApplication", "Add-CMScriptDeploymentType", "Add-CMDeploymentTypeReturnCode"}
REMEDIATION_MINUTES = 30  # documented for Intune's other scripts; for Remediations no limit was found
# The return codes that a script installer of Configuration Manager has from the start.
LISTED_FROM_THE_START = {"Success": 0, "SoftReboot": 3010, "FastRetry": 1618}


def read(path: Path) -> str:
    return path.read_text("utf-8")


def constant(top: Path, file: str, name: str) -> str:
    """A text of the product, as it is at run time."""
    match = re.search(rf'{name}(?:\[\])?\s*=\s*L?"((?:[^"\\]|\\.)*)"', read(top / "src" / file))
    if not match:
        raise ValueError(f"src/{file} has no {name}")
    return match[1].replace("\\\\", "\\")


def display_class(top: Path) -> str:
    numbers = re.findall(r"0x([0-9A-F]+)", re.search(r"kDisplayClass = (.*);", read(top / "src/inventory/constants.h"))[1])
    return f"{{{numbers[0]}-{numbers[1]}-{numbers[2]}-{''.join(numbers[3:5])}-{''.join(numbers[5:])}}}".lower()


def output_of(*command: str, folder: Path | None = None, **variables: str) -> Iterator[str]:
    """What a program complains about."""
    done = subprocess.run(command, cwd=folder, env={**os.environ, "NO_COLOR": "1", **variables}, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        yield from (done.stdout + done.stderr).strip().splitlines() or [f"{command[0]} ended with {done.returncode}"]


def formats(top: Path) -> Iterator[str]:
    yield from deployment_forms.complaints(top / "deploy")
    yield from output_of("yamllint", "--strict", "-f", "parsable", "-d", YAMLLINT, str(top / "deploy"))


# Group Policy

def policy(top: Path) -> Iterator[str]:
    folder = top / "deploy" / "policy"
    for template in sorted(folder.glob("*.admx")):
        definitions = ElementTree.parse(template).getroot()
        for texts in sorted(folder.glob(f"*/{template.stem}.adml")):
            yield from _resolve(definitions, ElementTree.parse(texts).getroot())
        if not (folder / "en-US" / f"{template.stem}.adml").exists():
            yield f"{template.name} has no texts in en-US"
        yield from _fits_the_product(top, definitions)


def _resolve(definitions: ElementTree.Element, resources: ElementTree.Element) -> Iterator[str]:
    """Every name that is used is defined once, and every name that is defined is used."""
    everything = " ".join(value for item in definitions.iter() for value in item.attrib.values())
    for kind in ("string", "presentation"):
        used = set(re.findall(rf"\$\({kind}\.(\w+)\)", everything))
        defined = [item.get("id") for item in resources.iter(POLICY + kind)]
        yield from (f"policy: there is no {kind} {name}" for name in sorted(used - set(defined)))
        yield from (f"policy: nothing uses the {kind} {name}" for name in sorted(set(defined) - used))
        yield from (f"policy: the {kind} {name} is defined twice" for name in sorted(set(defined)) if defined.count(name) > 1)
    yield from (f"policy: the string {item.get('id')} is empty" for item in resources.iter(POLICY + "string") if not (item.text or "").strip())
    for element, target in (("parentCategory", "category"), ("supportedOn", "definition")):
        defined = {item.get("name") for item in definitions.iter(POLICY + target)}
        yield from (f"policy: there is no {target} {item.get('ref')}" for item in definitions.iter(POLICY + element)
                    if item.get("ref") is not None and item.get("ref") not in defined)
    for one in definitions.iter(POLICY + "policy"):
        elements = [item.get("id") for item in one.iter(POLICY + "text")]
        name = re.fullmatch(r"\$\(presentation\.(\w+)\)", one.get("presentation", ""))
        boxes = [box.get("refId") for item in resources.iter(POLICY + "presentation") if name and item.get("id") == name[1]
                 for box in item.iter(POLICY + "textBox")]
        if sorted(elements) != sorted(boxes):
            yield f"policy: {one.get('name')} has the elements {elements}, its presentation shows {boxes}"


def _fits_the_product(top: Path, definitions: ElementTree.Element) -> Iterator[str]:
    file = "acquisition/constants.h"
    key, value = constant(top, file, "kServerKey"), constant(top, file, "kServerFolderValue")
    found = [(one.get("key"), item.get("valueName"), item.get("maxLength")) for one in definitions.iter(POLICY + "policy")
             for item in one.iter(POLICY + "text")]
    room = int(re.search(r"kUrlPartCharacters = (\d+)", read(top / "src" / file))[1]) - 1
    longest = room - 5 - len(constant(top, file, "kRemoteFile"))
    if found != [(key, value, str(longest))]:
        yield f"policy: the product reads {value} in {key}, up to {longest} characters; the template has {found}"


# The scheduled task

def task(top: Path) -> Iterator[str]:
    file = top / "deploy" / "task" / "TavikRepairAfterDriverUpdate.xml"
    text = file.read_bytes()
    if not text.isascii() or b"encoding" in text.splitlines()[0]:
        yield f"{file.name}: must be ASCII without an encoding, so that every reader understands it"
    root = ElementTree.parse(file).getroot()
    installer = read(top / "deploy" / "task" / "Install-TavikRepair.cmd")
    name, target, log = (re.search(pattern, installer, re.M)[1] for pattern in (r"^set task=(.*)", r"^set target=(.*)", r"set-log (\S+) /"))
    wanted = {
        "UserId": "S-1-5-18",  # SYSTEM
        "URI": name,
        "Command": rf'"{target}\TavikToolCompanion.exe"'.replace("%ProgramW6432%", "%ProgramFiles%"),
        "Arguments": "run --unless-in-use -- -SILENT",
        # A device of the class of display adapters got a driver; Install-TavikRepair.cmd enables this log.
        "Subscription": f'<QueryList><Query Id="0" Path="{log}"><Select Path="{log}">*[System[Provider[@Name=\'Microsoft-Windows-Kernel-PnP\'] and '
                        f"EventID=400]] and *[EventData[Data[@Name='ClassGuid']='{display_class(top)}']]</Select></Query></QueryList>"}
    for element, right in wanted.items():
        found = [item.text for item in root.iter(TASK + element)]
        if found != [right]:
            yield f"{file.name}: {element} is {found}, not {right!r}"
    contexts = [item.get("Context") for item in root.iter(TASK + "Actions")]
    if contexts != [item.get("id") for item in root.iter(TASK + "Principal")]:
        yield f"{file.name}: there is no principal {contexts}"


# Return codes

def return_codes(top: Path) -> Iterator[str]:
    """Each recipe's table has the codes that the companion ends with, each with its meaning there, and no other."""
    deploy = top / "deploy"
    intune = {item["type"]: item["returnCode"] for item in json.loads(read(deploy / "intune/app.json"))["returnCodes"]}
    configmgr = LISTED_FROM_THE_START | {kind: int(code) for code, kind in re.findall(
        r"-ReturnCode (\d+) -CodeType (\w+)", read(deploy / "configmgr/New-TavikApplication.ps1"))}
    ansible = yaml.safe_load(read(deploy / "ansible/roles/tavik_repair/defaults/main.yml"))["tavik_repair_return_codes"]
    winget = {item["ReturnResponse"]: item["InstallerReturnCode"] for item in
              yaml.safe_load(read(deploy / "winget/Tavik.SoftwareRepair.installer.yaml"))["ExpectedReturnCodes"]}
    tables = {
        "intune/app.json": (intune, dict(zip(("success", "softReboot", "retry", "failed"), CODES.values()))),
        "configmgr/New-TavikApplication.ps1": (configmgr, dict(zip(("Success", "SoftReboot", "FastRetry", "Failure"), CODES.values()))),
        "ansible/roles/tavik_repair/defaults/main.yml": (ansible, CODES),
        "winget/Tavik.SoftwareRepair.installer.yaml": (winget, {"rebootRequiredToFinish": CODES["restart"], "installInProgress": CODES["retry"],
                                                                "contactSupport": CODES["failed"]}),
    }
    compared = {name.partition("/")[0] for name in tables}
    yield from (f"deploy/{folder.name}: its return codes are not compared: add a table, or the folder to WITHOUT_CODES"
                for folder in sorted(deploy.iterdir()) if folder.is_dir() and folder.name not in compared | WITHOUT_CODES)
    yield from (f"{name}: the return codes are {found}, not {wanted}" for name, (found, wanted) in tables.items() if found != wanted)
    catalogue = {item["code"]: item for item in json.loads(read(deploy / "return-codes.json"))["codes"]}
    if set(catalogue) != set(CODES.values()):
        yield f"return-codes.json has the codes {sorted(catalogue)}, the recipes {sorted(CODES.values())}"
    for system, table in (("intune", intune), ("configuration_manager", configmgr)):
        said = {code: item[system].partition(" (")[0].replace(" ", "").lower() for code, item in catalogue.items()}
        done = {code: kind.lower() for kind, code in table.items()}
        yield from (f"return-codes.json: to {system}, {code} is {said[code]}, and {done[code]} in the recipe"
                    for code in sorted(said.keys() & done.keys()) if said[code] != done[code])


# The scripts

def scripts(top: Path) -> Iterator[str]:
    """They only start programs, and what they say about the product is true."""
    deploy = top / "deploy"
    for file in sorted([*deploy.rglob("*.ps1"), *deploy.rglob("*.cmd")]):
        data = file.read_bytes()
        if not data.isascii():
            yield f"{file.name}: must be ASCII: Windows PowerShell reads other bytes in the machine's code page"
        text = data.decode("ascii", "replace")
        code = re.sub(r"^\s*#.*", "", text, flags=re.M) if file.suffix == ".ps1" else ""
        if len(text.splitlines()) > LONGEST_SCRIPT:
            yield f"{file.name}: has more than {LONGEST_SCRIPT} lines: what it decides belongs into the companion"
        yield from (f"{file.name}: {name} starts no program" for name in re.findall(r"(?<![\w\\-])[A-Z][a-z]+-[A-Z]\w+(?!\S*\.\w)", code)
                    if name not in COMMANDS)
        if re.search(r"-VLT|-Install\b", text):
            yield f"{file.name}: no direct installation without a user at the screen: its box would wait forever"
        for name in re.findall(r"[\w-]+\.(?:ps1|xml)\b", text.replace("%~dp0", "")):
            if not list(deploy.rglob(name)):
                yield f"{file.name}: there is no {name} in the kit"
    if not read(deploy / "powershell/Test-TavikRelease.ps1").endswith("& $companion status --detect\nexit $LASTEXITCODE\n"):
        yield "Test-TavikRelease.ps1: must end with the exit code of TavikToolCompanion.exe status --detect"
    adapter = re.search(r"-match '([^']*)'", read(deploy / "intune/Require-TavikAdapter.ps1"))[1]
    ids = [constant(top, "inventory/constants.h", name) for name in ("kVendorId", "kSecondVendorId")]
    if not all(re.fullmatch(adapter, name) for name in ids):
        yield f"Require-TavikAdapter.ps1: the product looks for {' and '.join(ids)}, the rule for {adapter}"
    version = re.search(r'TAVIK_VERSION_TEXT "(.*)"', read(top / "src/resources/version.h"))[1]
    manifests = [yaml.safe_load(read(file)) for file in sorted((deploy / "winget").glob("*.yaml"))]
    if {(one["PackageIdentifier"], one["PackageVersion"]) for one in manifests} != {("Tavik.SoftwareRepair", version)}:
        yield f"winget: all manifests must be of Tavik.SoftwareRepair {version}"
    inside = [file["RelativeFilePath"] for one in manifests for file in one.get("NestedInstallerFiles", [])]
    if inside != [rf"TavikCompatibilityTool-{version}\TavikToolCompanion.exe"]:
        yield f"winget: the zip of the release has TavikToolCompanion.exe in the folder TavikCompatibilityTool-{version}, not {inside}"
    if {one["ManifestType"] for one in manifests} != {"version", "installer", "defaultLocale"}:
        yield "winget: there must be three manifests, one of each type"


def limits(top: Path) -> Iterator[str]:
    """Each recipe starts `run`, silently, and `run` ends before its system ends it, also when it installs a lost application; only for
    Remediations, which has too little time for that, the page says what then happens."""
    deploy = top / "deploy"
    default, recovery = (int(re.search(rf"{name} = (\d+)", read(top / "companion/run_command.cpp"))[1])
                         for name in ("kDefaultLimitSeconds", "kRecoveryLimitSeconds"))
    app = json.loads(read(deploy / "intune/app.json"))
    configmgr = read(deploy / "configmgr/New-TavikApplication.ps1")
    task_file = ElementTree.parse(deploy / "task/TavikRepairAfterDriverUpdate.xml")
    recipes = {
        "intune/app.json": (app["installCommandLine"], app["installExperience"]["maxRunTimeInMinutes"]),
        "configmgr": (re.search(r"-InstallCommand '(.*)'", configmgr)[1], int(re.search(r"-MaximumRuntimeMins (\d+)", configmgr)[1])),
        "intune/Remediate-TavikRepair.ps1": (read(deploy / "intune/Remediate-TavikRepair.ps1"), REMEDIATION_MINUTES),
        "task": (task_file.findtext(f".//{TASK}Arguments"), 60 * int(re.search(r"\d+", task_file.findtext(f".//{TASK}ExecutionTimeLimit"))[0]))}
    for name, (command, minutes) in recipes.items():
        started = re.search(r"\brun( --keep| --unless-in-use)?(?: --timeout (\d+))? -- -SILENT", command)
        if not started:
            yield f"{name}: must start the companion's run, silently: {command}"
        elif (seconds := max(int(started[2] or default), 0 if "Remediate" in name else recovery)) >= minutes * 60:
            yield f"{name}: run waits {seconds} seconds, and its system ends it after {minutes} minutes"


# Ansible

def ansible(top: Path) -> Iterator[str]:
    """Its modules for Windows need not be installed: their names are made known, their arguments are not checked."""
    with tempfile.TemporaryDirectory() as copy:  # newer versions of ansible-lint write into the folder
        folder = shutil.copytree(top / "deploy" / "ansible", Path(copy) / "ansible")
        modules = {name for file in folder.rglob("*.yml") for name in re.findall(r"ansible\.windows\.win_\w+", read(file))}
        (folder / ".ansible-lint").write_text(
            yaml.safe_dump({"profile": "production", "strict": True, "offline": True, "mock_modules": sorted(modules)}), "ascii")
        yield from output_of("ansible-lint", "--nocolor", "site.yml", "requirements.yml", "roles", folder=folder,
                             ANSIBLE_ROLES_PATH=str(folder / "roles"))


# With --full

PARSE = """
const { Parser, Language } = require("web-tree-sitter");
const fs = require("fs");
(async () => {
  await Parser.init();
  const parser = new Parser();
  parser.setLanguage(await Language.load("node_modules/tree-sitter-powershell/tree-sitter-powershell.wasm"));
  let bad = 0;
  const look = (file, node) => {
    if (node.isError || node.isMissing) {
      bad++;
      console.log(`${file}:${node.startPosition.row + 1}: cannot be parsed: ${node.text.slice(0, 60)}`);
    } else if (node.hasError) node.children.forEach((child) => look(file, child));
  };
  process.argv.slice(2).forEach((file) => look(file, parser.parse(fs.readFileSync(file, "utf8")).rootNode));
  process.exit(bad ? 1 : 0);
})();
"""


def powershell(top: Path) -> Iterator[str]:
    """Only the grammar, not whether a command or a parameter exists."""
    missing = [name for name in ("node", "npm") if not shutil.which(name)]
    if missing:
        yield f"missing: {', '.join(missing)}; apt-get install --no-install-recommends nodejs npm"
        return
    folder = TOP / "build" / "check" / "powershell"
    folder.mkdir(parents=True, exist_ok=True)
    if not all((folder / "node_modules" / name).exists() for name in PARSER):
        (folder / "package.json").write_text(json.dumps({"private": True, "dependencies": PARSER}), "ascii")
        yield from output_of("npm", "install", "--ignore-scripts", "--no-audit", "--no-fund", "--silent", folder=folder)
    (folder / "parse.cjs").write_text(PARSE, "ascii")
    yield from output_of("node", "parse.cjs", *map(str, sorted((top / "deploy").rglob("*.ps1"))), folder=folder)


RULES = (formats, policy, task, return_codes, scripts, limits, ansible)
FULL = (powershell,)


def main(arguments: list[str]) -> int:
    if arguments not in ([], ["--full"]):
        print(__doc__)
        return 0 if arguments in (["--help"], ["-h"]) else 2
    rules = RULES + FULL if arguments else RULES
    complaints = [complaint for rule in rules for complaint in rule(TOP)]
    print("\n".join([*complaints, f"{', '.join(rule.__name__.replace('_', ' ') for rule in rules)}: {len(complaints)} complaints."]))
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
