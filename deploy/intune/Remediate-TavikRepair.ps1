# Remediations, remedy: exit code 0, done or nothing to do; otherwise failed. After 25 minutes the tool goes on alone, and the next run
# checks what came of it.
& "$env:ProgramW6432\Tavik\MIM\Repair\Programs\TavikToolCompanion.exe" run --unless-in-use --timeout 1500 -- -SILENT
if ($LASTEXITCODE -in 0, 3010) { exit 0 }
exit 1
