#Requires -Version 5.1
# Detection script: a line of output and exit code 0, no repair is needed; exit code 0 alone, a repair is needed. Starts
# TavikToolCompanion.exe, beside this script or where its command "run --keep" has left it. Never run on a real Windows.
# In a 32-bit PowerShell ProgramFiles is the folder of 32-bit programs.
$programFiles = if ($env:ProgramW6432) { $env:ProgramW6432 } else { $env:ProgramFiles }
foreach ($folder in $PSScriptRoot, "$programFiles\Tavik\MIM\Repair\Programs") {
    if ($folder -and (Test-Path -LiteralPath "$folder\TavikToolCompanion.exe")) {
        & "$folder\TavikToolCompanion.exe" status --detect
        exit $LASTEXITCODE
    }
}
exit 0
