# Remediations, detection: exit code 1 starts Remediate-TavikRepair.ps1, any other does not. The Win32 app has left the companion there.
$companion = "$env:ProgramW6432\Tavik\MIM\Repair\Programs\TavikToolCompanion.exe"
if (-not (Test-Path -LiteralPath $companion)) { 'not known: the Win32 app has not run yet'; exit 0 }
& $companion status
# Up to date, not installed, no adapter: nothing to repair. Otherwise not known, due, or a recovery is pending.
if ($LASTEXITCODE -in 0, 6, 7) { exit 0 }
exit 1
