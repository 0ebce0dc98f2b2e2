"""What Windows reads from the shipping exe before its first instruction runs: manifest, version, dialog, banner. The libraries that it
loads at start are listed in tools/exe_gate.py."""
from __future__ import annotations

import re
import struct
import subprocess
import xml.etree.ElementTree

from lab import paths


def resource(kind: int, number: int) -> bytes:
    """As stored, without the header of a resource file."""
    command = ["wrestool", "--extract", "--raw", f"--type={kind}", f"--name={number}", str(paths.need(paths.TOOL))]
    return subprocess.run(command, stdout=subprocess.PIPE, check=True).stdout


# Proves: Windows reads the manifest => it asks for an administrator
def test_manifest_asks_for_an_administrator():
    manifest = xml.etree.ElementTree.fromstring(resource(24, 1))
    level, = manifest.iter("{urn:schemas-microsoft-com:asm.v3}requestedExecutionLevel")
    assert level.attrib == {"level": "requireAdministrator", "uiAccess": "false"}


# Proves: A user opens the file's properties => file and product version 1.0.0.1, description "Tavik Software Compatibility Tool"
def test_version_and_description():
    version = resource(16, 1)
    fixed = struct.unpack_from("<13I", version, version.index(struct.pack("<I", 0xFEEF04BD)))
    assert [f"{high >> 16}.{high & 0xFFFF}.{low >> 16}.{low & 0xFFFF}" for high, low in (fixed[2:4], fixed[4:6])] == ["1.0.0.1"] * 2
    texts = version.decode("utf-16-le", errors="replace")
    found = {name: re.search(rf"{name}\0+([^\0]+)\0", texts).group(1) for name in ("FileVersion", "ProductVersion", "FileDescription")}
    assert found == {"FileVersion": "1.0.0.1", "ProductVersion": "1.0.0.1", "FileDescription": "Tavik Software Compatibility Tool"}


# Proves: Dialog and banner are stored => dialog 161 has its size and style, the banner is 640 x 192 pixels in 24 bits
def test_status_dialog_is_stored_as_designed():
    dialog = resource(5, 161)
    signature, kind, _, extended, style, controls, x, y, width, height = struct.unpack_from("<HHIIIHhhhh", dialog)
    assert (signature, kind, extended, style, controls, x, y, width, height) == (1, 0xFFFF, 0, 0x80800C40, 4, 0, 0, 286, 72)
    menu, window_class, caption, points, weight, italic, script = struct.unpack_from("<5H2B", dialog, 26)
    assert (menu, window_class, caption, points, weight, italic, script) == (0, 0, 0, 16, 400, 0, 0)
    assert dialog[38:].startswith("Segoe MDL2 Assets\0".encode("utf-16-le"))


def test_banner_is_640_by_192_in_24_bits():
    size, width, height, planes, bits, compression = struct.unpack_from("<IiiHHI", resource(2, 163))
    assert (size, width, height, planes, bits, compression) == (40, 640, 192, 1, 24, 0)
