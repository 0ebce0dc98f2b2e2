# Creates the application (Configuration Manager 2107 or newer). Run it on the site's drive, as in PS XYZ:\>.
# Content: a share with TavikCompatibilityTool.exe and TavikToolCompanion.exe. Detection: the path of Test-TavikRelease.ps1.
param([string] $Content, [string] $Detection, [string] $Name = 'Tavik Software repair')
$ErrorActionPreference = 'Stop'
New-CMApplication -Name $Name -Publisher 'Tavik' -Description 'Installs the application that matches the display driver.'
$type = Add-CMScriptDeploymentType -ApplicationName $Name -DeploymentTypeName $Name -ContentLocation $Content `
    -InstallCommand 'TavikToolCompanion.exe run --keep --timeout 3000 -- -SILENT' `
    -ScriptLanguage PowerShell -ScriptText (Get-Content -LiteralPath "FileSystem::$Detection" -Raw) `
    -InstallationBehaviorType InstallForSystem -LogonRequirementType WhetherOrNotUserLoggedOn -UserInteractionMode Hidden `
    -RebootBehavior BasedOnExitCode -EstimatedRuntimeMins 15 -MaximumRuntimeMins 90
# 0, 3010 and 1618 are there from the start. 1603 counts as a failure anyway; so reports show a name for it.
Add-CMDeploymentTypeReturnCode -InputObject $type -ReturnCode 1603 -CodeType Failure -Name 'Repair failed'
