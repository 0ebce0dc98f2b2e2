"""The INF text of a display driver package, with no more than Windows and the tool read."""
from __future__ import annotations

TEMPLATE = """\
[Version]
Signature="$Windows NT$"
Class=Display
ClassGuid={4D36E968-E325-11CE-BFC1-08002BE10318}
Provider=%Maker%
CatalogFile={name}.cat
DriverVer=06/19/2024,31.0.24020.1101

[Manufacturer]
%Maker%=Adapters,NTamd64

[Adapters.NTamd64]
"{description}"=Adapter_Install,{hardware}

[Adapter_Install.NT]
FeatureScore=E6
AddReg=Adapter_Settings

[Adapter_Settings]
HKR,,InstalledDisplayDrivers,%REG_MULTI_SZ%,tavikdxx
HKR,,ReleaseVersion,,"{release}"

[Strings]
Maker="Tavik"
REG_MULTI_SZ=0x00010000
"""


def text(name: str, description: str, hardware: str, release: str) -> str:
    lines = TEMPLATE
    for key, value in (("name", name), ("description", description), ("hardware", hardware), ("release", release)):
        lines = lines.replace("{%s}" % key, value)
    return lines.replace("\n", "\r\n")
