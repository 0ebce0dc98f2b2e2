# Requirement rule of the Win32 app: prints "adapter" on a PC that has had an adapter of the maker. On others the app is not applicable.
# Intune runs it before it loads the programs, so it asks Windows itself.
if ((reg.exe query HKLM\SYSTEM\CurrentControlSet\Enum\PCI) -match 'VEN_1E7[CD]') { 'adapter' }
exit 0
