#Requires -Version 5.1
<#
.SYNOPSIS
Runs the tool silently from a deployment system, as SYSTEM or as an administrator, and ends with a code that the system understands.

.DESCRIPTION
TavikCompatibilityTool.exe and TavikToolCompanion.exe are beside this script, in a folder that users cannot write to. The output is
one line of JSON with the outcome, written by TavikToolCompanion.exe.

Exit codes: 0 done or nothing to do, 3010 done and a restart completes it, 1618 busy, try again later, 1603 failed.

Never run on a real Windows.

.PARAMETER Folder
Folder with the two programs.
#>
[CmdletBinding()]
param([string] $Folder = $PSScriptRoot)

Set-StrictMode -Version 2.0
$ErrorActionPreference = 'Stop'
$exitBusy = 1618
$exitFailed = 1603
# Less than the three hours that the recipes give this script. At the limit the tool keeps running and the code is 1618.
$limitSeconds = 9000
$lock = $null
$temp = $null
$code = $exitFailed

function Test-Running { return [bool] (Get-Process -Name 'TavikCompatibilityTool' -ErrorAction SilentlyContinue) }

try {
    foreach ($name in 'TavikToolCompanion.exe', 'TavikCompatibilityTool.exe') {
        if (-not (Test-Path -LiteralPath (Join-Path $Folder $name) -PathType Leaf)) { throw "$name is missing in $Folder. Copy it there." }
    }
    $identity = [Security.Principal.WindowsPrincipal] [Security.Principal.WindowsIdentity]::GetCurrent()
    if (-not $identity.IsInRole([Security.Principal.WindowsBuiltInRole]::Administrator)) { throw 'This script needs administrator rights. Run it as SYSTEM or as an administrator.' }

    # Every user may create folders in SYSTEM's own temporary folder, and in session 0 the tool cannot protect the folder that it
    # unpacks into (docs/deploying.md). So it gets one that only administrators can write to. ProgramW6432: in a 32-bit PowerShell
    # ProgramFiles is the folder of 32-bit programs.
    $programFiles = if ($env:ProgramW6432) { $env:ProgramW6432 } else { $env:ProgramFiles }
    $base = Join-Path $programFiles 'Tavik\MIM'
    New-Item -ItemType Directory -Force -Path $base | Out-Null

    # One at a time, because the folder is emptied. Only administrators can hold the file. Test-Running: the tool may still be at
    # work after a time limit, also in another session, where a second tool would not notice it.
    try { $lock = [IO.File]::Open((Join-Path $base 'Repair.lock'), 'OpenOrCreate', 'ReadWrite', 'None') }
    catch [IO.IOException] { $lock = $null }
    if ($null -eq $lock -or (Test-Running)) {
        [Console]::Error.WriteLine('Another repair is running. Try again later.')
        $code = $exitBusy
        exit $code
    }
    $temp = Join-Path $base 'Temp'
    if (Test-Path -LiteralPath $temp) { Remove-Item -LiteralPath $temp -Recurse -Force }
    # With the folder that the installer is started in: without it the tool may fail to start the installer.
    New-Item -ItemType Directory -Path (Join-Path $temp 'Tavik_VLTInstallerDownload\LPInstaller') | Out-Null
    $env:TMP = $temp
    $env:TEMP = $temp

    & (Join-Path $Folder 'TavikToolCompanion.exe') 'run' '--timeout' $limitSeconds '--' '-SILENT'
    $code = $LASTEXITCODE
}
catch {
    [Console]::Error.WriteLine("$_")
    $code = $exitFailed
}
finally {
    if ($null -ne $temp -and -not (Test-Running)) { Remove-Item -LiteralPath $temp -Recurse -Force -ErrorAction SilentlyContinue }
    if ($null -ne $lock) { $lock.Close() }
}
exit $code
