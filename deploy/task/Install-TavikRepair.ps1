#Requires -Version 5.1
#Requires -RunAsAdministrator
<#
.SYNOPSIS
Installs the tool on a machine and registers the task that repairs the application after each update of the display driver.

.DESCRIPTION
Run it again to update the files; -Remove removes task and files. Source holds TavikCompatibilityTool.exe, TavikToolCompanion.exe and
TavikRepairAfterDriverUpdate.xml; it may be a share.

As a startup script of a Group Policy it needs no parameters. Never run on a real Windows.

.PARAMETER Source
Folder with the three files.

.PARAMETER Remove
Removes the task and the files.
#>
[CmdletBinding()]
param([string] $Source = $PSScriptRoot, [switch] $Remove)

Set-StrictMode -Version 2.0
$ErrorActionPreference = 'Stop'
$taskPath = '\Tavik\'
$taskName = 'RepairAfterDriverUpdate'
$log = 'Microsoft-Windows-Kernel-PnP/Configuration'
$files = 'TavikCompatibilityTool.exe', 'TavikToolCompanion.exe'
$programFiles = if ($env:ProgramW6432) { $env:ProgramW6432 } else { $env:ProgramFiles }
# Users cannot write there, and must not be able to: the task runs as SYSTEM.
$target = Join-Path $programFiles 'Tavik\Repair'

if ($Remove) {
    Get-ScheduledTask -TaskPath $taskPath -TaskName $taskName -ErrorAction SilentlyContinue | Unregister-ScheduledTask -Confirm:$false
    if (Test-Path -LiteralPath $target) { Remove-Item -LiteralPath $target -Recurse -Force }
    exit 0
}
New-Item -ItemType Directory -Force -Path $target | Out-Null
foreach ($file in $files) { Copy-Item -LiteralPath (Join-Path $Source $file) -Destination $target -Force }
# The event that starts the task is written to this log.
& (Join-Path $env:SystemRoot 'System32\wevtutil.exe') 'set-log' $log '/enabled:true'
$xml = Get-Content -LiteralPath (Join-Path $Source 'TavikRepairAfterDriverUpdate.xml') -Raw
Register-ScheduledTask -TaskPath $taskPath -TaskName $taskName -Xml $xml -Force | Out-Null
exit 0
