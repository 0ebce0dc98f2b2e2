#!/usr/bin/python3
"""Makes one MSI: package.py FAMILY-RELEASE[-KIND] PROGRAMS_FOLDER OUT.msi

Kinds: fail (the installation ends with 1603); stubborn (the removal ends with 1603); reboot (installation and
removal end with 3010). Other products of the same family get other product codes, so that several can be installed.
"""
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import uuid

UPGRADE_CODES = {
    "Halden": "{5D2C81F0-7A3E-4B19-9C64-2E8F0A1B3C47}",
    "DVR": "{8E41A6D2-0C9B-4F73-A215-6B7D3E9F0A58}",
    "PXL": "{B07F3C95-4D28-4E6A-8B31-9F5A2C7E1D04}",
}
REFUSE = ("INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('Refuse', 19, '', 'Refused.')",
          "INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('Refuse', '{condition}', 1510)")
CHANGES = {
    "": (),
    "fail": tuple(line.format(condition='NOT (REMOVE="ALL")') for line in REFUSE),
    "stubborn": tuple(line.format(condition='REMOVE="ALL"') for line in REFUSE),
    "reboot": ("INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('ScheduleReboot', '', 6500)",),
}


def code(*parts: str) -> str:
    """The same product gets the same code in every build. Wine lists products by their codes, and the model of the fault campaign
    expects an old product before a new one."""
    return "{%s}" % str(uuid.uuid5(uuid.NAMESPACE_URL, "/".join(("tavik-lab",) + parts))).upper()


def main(name: str, programs: str, out: str) -> None:
    family, release, kind = (name + "-").split("-")[:3]
    here = pathlib.Path(__file__).parent
    with tempfile.TemporaryDirectory() as place:
        folder = pathlib.Path(place)  # wixl finds files beside its source only
        for source in (here / "package.wxs", *pathlib.Path(programs).glob("*.exe")):
            shutil.copy(source, folder)
        (folder / "release.txt").write_text(f"{family} {release}\n")
        values = {
            "Family": family, "Release": release, "UpgradeCode": UPGRADE_CODES[family],
            "ProductCode": code(family, release, kind or "normal"), "ComponentCode": code(family, release, kind or "normal", "component"),
        }
        made = folder / "made.msi"
        defines = [argument for name, value in values.items() for argument in ("-D", f"{name}={value}")]
        subprocess.run(["wixl", "-a", "x64", *defines, "-o", made.name, "package.wxs"], check=True, cwd=folder)
        for line in CHANGES[kind]:
            subprocess.run(["msibuild", str(made), "-q", line], check=True)
        os.makedirs(os.path.dirname(out), exist_ok=True)
        pathlib.Path(out).write_bytes(made.read_bytes())


if __name__ == "__main__":
    main(*sys.argv[1:])
