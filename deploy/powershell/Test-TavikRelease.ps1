# Detection for Intune and Configuration Manager: a line of output, no repair is needed; exit code 0 without a line, one is needed.
# "run --keep" leaves the companion there. Before the first run it is missing, and a repair counts as needed.
$companion = "$env:ProgramW6432\Tavik\MIM\Repair\Programs\TavikToolCompanion.exe"
if (-not (Test-Path -LiteralPath $companion)) { exit 0 }
& $companion status --detect
exit $LASTEXITCODE
