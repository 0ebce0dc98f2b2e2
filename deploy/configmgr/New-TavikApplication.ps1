#Requires -Version 5.1
<#
.SYNOPSIS
Creates the application in Configuration Manager (2107 or newer). Run it on the site's drive, as in PS XYZ:\>.

.DESCRIPTION
Content is a share that holds TavikCompatibilityTool.exe and TavikToolCompanion.exe; Detection is the path of
Test-TavikRelease.ps1. Afterwards distribute the application and deploy it as "required". Never run on a real Configuration Manager.

.PARAMETER Content
Share with the two files.

.PARAMETER Detection
Path of Test-TavikRelease.ps1.
#>
[CmdletBinding()]
param(
    [Parameter(Mandatory = $true)] [string] $Content,
    [Parameter(Mandatory = $true)] [string] $Detection,
    [string] $Name = 'Tavik Software repair'
)

Set-StrictMode -Version 2.0
$ErrorActionPreference = 'Stop'

# What the exit codes of TavikToolCompanion.exe run mean to Configuration Manager.
$returnCodes = @(
    @{ ReturnCode = 0; CodeType = 'Success' }
    @{ ReturnCode = 3010; CodeType = 'SoftReboot' }
    @{ ReturnCode = 1618; CodeType = 'FastRetry' }
    @{ ReturnCode = 1603; CodeType = 'Failure' }
)
# A new deployment type has these from the start, with the same meaning. 1603 would count as a failure anyway, like every code that
# is not listed; it is added so that reports show a name for it.
$listedFromTheStart = 0, 3010, 1618

New-CMApplication -Name $Name -Publisher 'Tavik' -Description 'Installs the application that matches the display driver.' | Out-Null
$type = @{
    ApplicationName           = $Name
    DeploymentTypeName        = "$Name - script"
    ContentLocation           = $Content
    InstallCommand            = 'TavikToolCompanion.exe run --keep -- -SILENT'
    ScriptLanguage            = 'PowerShell'
    ScriptText                = Get-Content -LiteralPath "FileSystem::$Detection" -Raw
    InstallationBehaviorType  = 'InstallForSystem'
    LogonRequirementType      = 'WhetherOrNotUserLoggedOn'
    UserInteractionMode       = 'Hidden'
    RebootBehavior            = 'BasedOnExitCode'
    EstimatedRuntimeMins      = 15
    MaximumRuntimeMins        = 180
}
$created = Add-CMScriptDeploymentType @type
foreach ($one in $returnCodes | Where-Object { $listedFromTheStart -notcontains $_.ReturnCode }) {
    Add-CMDeploymentTypeReturnCode -InputObject $created -ReturnCode $one.ReturnCode -CodeType $one.CodeType -Name 'Repair failed'
}
