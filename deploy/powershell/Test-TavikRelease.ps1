#Requires -Version 5.1
<#
.SYNOPSIS
Tells whether the application belongs to the release of the active display driver: the tool's own rule, without running the tool.

.DESCRIPTION
Detection script for Intune and Configuration Manager. Exit code 0 with a line of output: no repair is needed. Exit code 0 without
output: a repair is needed. Exit code 1 with a text on the error stream: an error; both systems then treat the state as unknown.

It reads the registry, the list of devices and the list of Store packages, and changes nothing. The answer is the same in a 32-bit
and in a 64-bit PowerShell. Only its rule was tested, translated into Python; never run on a real Windows.
#>
Set-StrictMode -Version 2.0
$ErrorActionPreference = 'Stop'

$displayClass = '{4d36e968-e325-11ce-bfc1-08002be10318}'
$vendorIds = @('VEN_1E7D', 'VEN_1E7C')
$driverKeys = 'SYSTEM\CurrentControlSet\Control\Class\'
$releaseValue = 'ReleaseVersion'
$applicationKey = 'SOFTWARE\Tavik\HL'
$applicationValue = 'HLVersion'
$upgradeCode = '{5D2C81F0-7A3E-4B19-9C64-2E8F0A1B3C47}'
$storePackages = @('TavikSystemsInc-2.8F31D07A2B6E4', 'TavikSystemsInc-2.TavikCorvelSoftware')

# The 64-bit view, also in a 32-bit PowerShell: the tool reads this view.
$machine = [Microsoft.Win32.RegistryKey]::OpenBaseKey('LocalMachine', 'Registry64')

# A text of the registry; nothing when the value is missing or not a text, as in the tool.
function Read-Text([string] $KeyPath, [string] $Name) {
    $key = $machine.OpenSubKey($KeyPath)
    if ($null -eq $key) { return $null }
    try {
        if (@($key.GetValueNames()) -notcontains $Name) { return $null }
        if (@('String', 'ExpandString') -notcontains [string] $key.GetValueKind($Name)) { return $null }
        return [string] $key.GetValue($Name)
    }
    finally { $key.Close() }
}

# Windows Installer lists products under their upgrade code with its characters in an order of its own.
function Get-PackedCode([string] $Code) {
    $digits = $Code.Trim('{', '}').Replace('-', '')
    $order = 7, 6, 5, 4, 3, 2, 1, 0, 11, 10, 9, 8, 15, 14, 13, 12, 17, 16, 19, 18, 21, 20, 23, 22, 25, 24, 27, 26, 29, 28, 31, 30
    return -join ($order | ForEach-Object { $digits[$_] })
}

function Test-DesktopEdition {
    $key = $machine.OpenSubKey('SOFTWARE\Classes\Installer\UpgradeCodes\' + (Get-PackedCode $upgradeCode))
    if ($null -eq $key) { return $false }
    try { return $key.ValueCount -gt 0 }
    finally { $key.Close() }
}

# Minor.Build of the newest usable Store package, cut to five characters; nothing when there is none.
function Get-StoreVersion {
    $versions = @(Get-AppxPackage -AllUsers | Where-Object {
            $name = $_.PackageFullName
            ($storePackages | Where-Object { $name.ToUpperInvariant().Contains($_.ToUpperInvariant()) }) -and "$($_.Status)" -eq 'Ok'
        } | ForEach-Object { [version] "$($_.Version)" } | Sort-Object -Descending)
    if ($versions.Count -eq 0) { return $null }
    return Get-ReleasePrefix ('{0}.{1}' -f $versions[0].Minor, $versions[0].Build)
}

# The rule. tools/tests/test_deploy.py translates these three functions and runs them on the table of the tool's own tests.
function Get-ReleaseBase([string] $Release) {
    return $Release.Split('-')[0]
}

function Get-ReleasePrefix([string] $Release) {
    return $Release.Substring(0, [Math]::Min(5, $Release.Length))
}

function Test-SameRelease([string] $Base, [string] $Installed) {
    $compare = [StringComparer]::OrdinalIgnoreCase
    if ($compare.Equals($Base, $Installed)) { return $true }
    if ($compare.Equals((Get-ReleasePrefix $Base), $Installed)) { return $true }
    if ($compare.Equals((Get-ReleasePrefix $Base), (Get-ReleasePrefix $Installed))) { return $true }
    return $false
}

# The greatest release of the maker's adapters that are present, compared by characters and not by numbers; nothing if there is none.
function Get-DriverRelease {
    $greatest = $null
    foreach ($device in @(Get-CimInstance -ClassName Win32_PnPEntity -Filter "ClassGuid='$displayClass'")) {
        $id = [string] $device.PNPDeviceID
        $makers = @($vendorIds | Where-Object { $id.ToUpperInvariant().Contains($_) })
        if ($makers.Count -eq 0 -or ([string] $device.Description).Contains('Microsoft')) { continue }
        $driver = Read-Text "SYSTEM\CurrentControlSet\Enum\$id" 'Driver'
        if ($null -eq $driver) { continue }
        $release = Read-Text ($driverKeys + $driver) $releaseValue
        if ($null -eq $release) { continue }
        $base = Get-ReleaseBase $release
        if ($null -eq $greatest -or [string]::CompareOrdinal($base, $greatest) -gt 0) { $greatest = $base }
    }
    return $greatest
}

try {
    $release = Get-DriverRelease
    if ($null -eq $release) {
        Write-Output 'Nothing to repair: no display adapter of the maker with a known release.'
        exit 0
    }
    if (Test-DesktopEdition) {
        $installed = [string] (Read-Text $applicationKey $applicationValue)
    }
    else {
        $installed = Get-StoreVersion
        if ($null -eq $installed) {
            Write-Output 'Nothing to repair: the application is not installed.'
            exit 0
        }
    }
    if (Test-SameRelease $release $installed) {
        Write-Output "Nothing to repair: driver of release [$release], application of release [$installed]."
    }
    exit 0
}
catch {
    [Console]::Error.WriteLine("$_")
    exit 1
}
