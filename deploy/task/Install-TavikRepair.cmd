@echo off
rem Registers the task that repairs the application after each update of the display driver. Run it elevated, or as a startup script of a
rem Group Policy; run it again to update the programs. With the argument "remove" it removes task and programs.
set task=\Tavik\RepairAfterDriverUpdate
set target=%ProgramW6432%\Tavik\Repair
if "%~1"=="remove" schtasks /delete /tn %task% /f & rd /s /q "%target%" & exit /b
if not exist "%target%" md "%target%"
copy /y "%~dp0TavikCompatibilityTool.exe" "%target%"
if errorlevel 1 exit /b 1
copy /y "%~dp0TavikToolCompanion.exe" "%target%"
if errorlevel 1 exit /b 1
rem The event that starts the task is written to this log.
wevtutil set-log Microsoft-Windows-Kernel-PnP/Configuration /enabled:true
schtasks /create /tn %task% /xml "%~dp0TavikRepairAfterDriverUpdate.xml" /f
