; The desktop application's installer of one release, as the tool knows it: "/NCRC /S -EXTRACTONLY=YES /D=<folder>"
; unpacks the packages in the layout below and installs nothing. Defines: RELEASE, HALDEN, DVR, PXL (files), OUT.
; Without HALDEN the main package is left out.
;
; A case can make it misbehave by section [installer] of C:\lab\programs.ini: sleep = <ms>, exit = <code>,
; extract = no. Each start is recorded in C:\lab\installer.txt (its command line, UTF-16).
Target amd64-unicode
Name "Tavik Software ${RELEASE}"
OutFile "${OUT}"
RequestExecutionLevel admin
SetCompressor zlib
SilentInstall silent
InstallDir "C:\lab\unpacked"
!include FileFunc.nsh
!include LogicLib.nsh

Section
  ; The program's own start-up code cuts " /D=" off $CMDLINE.
  System::Call "kernel32::GetCommandLineW() w .r4"
  FileOpen $0 "C:\lab\installer.txt" a
  FileSeek $0 0 END
  FileWriteUTF16LE $0 "$4$\r$\n"
  FileClose $0

  ReadINIStr $1 "C:\lab\programs.ini" installer sleep
  ${If} $1 != ""
    Sleep $1
  ${EndIf}

  ; Without the switch this would be an ordinary installation, which the tool must never ask for.
  ${GetParameters} $2
  ${GetOptions} $2 "-EXTRACTONLY=" $3
  StrCpy $3 $3 3
  ${If} $3 != "YES"
    SetErrorLevel 87
    Quit
  ${EndIf}

  ReadINIStr $1 "C:\lab\programs.ini" installer extract
  ${If} $1 != "no"
!ifdef HALDEN
    SetOutPath "$INSTDIR\HL\halden\halden64"
    File "/oname=dwx-next64.msi" "${HALDEN}"
!endif
    SetOutPath "$INSTDIR\HL\tavikdvr\tavikdvr64"
    File "/oname=tavikdvr64.msi" "${DVR}"
    SetOutPath "$INSTDIR\HL\pxl64"
    File "/oname=PXL64.msi" "${PXL}"
    SetOutPath "$TEMP" ; the folder must not stay in use
  ${EndIf}

  ReadINIStr $1 "C:\lab\programs.ini" installer exit
  ${If} $1 != ""
    SetErrorLevel $1
  ${EndIf}
SectionEnd
