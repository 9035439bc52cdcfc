; The per-user installer of Tarnwell Key Agent: no administrator, the
; programs in the user's local application folder, a Start-menu entry for
; the manager and the agent started at log-on.
;   makensis -DSOURCE_DIR=FOLDER -DOUTPUT_FILE=SETUP.exe -DVERSION=X.Y.Z -DICON_FILE=agent.ico installer.nsi
; SOURCE_DIR is the folder that scripts/windows-folder lays out.

!macro REQUIRE NAME
  !ifndef ${NAME}
    !error "define ${NAME} on the command line of makensis"
  !endif
!macroend
!insertmacro REQUIRE SOURCE_DIR
!insertmacro REQUIRE OUTPUT_FILE
!insertmacro REQUIRE VERSION
!insertmacro REQUIRE ICON_FILE

Unicode true
Target amd64-unicode
SetCompressor /SOLID lzma
RequestExecutionLevel user
ManifestDPIAware true

!define PRODUCT "Tarnwell Key Agent"
!define AGENT_CLASS "Tarnwell_KeyAgent_HiddenWindow"
!define RUN_KEY "Software\Microsoft\Windows\CurrentVersion\Run"
!define UNINSTALL_KEY "Software\Microsoft\Windows\CurrentVersion\Uninstall\TarnwellKeyAgent"
!define SHORTCUT "$SMPROGRAMS\${PRODUCT}.lnk"

Name "${PRODUCT}"
OutFile "${OUTPUT_FILE}"
InstallDir "$LOCALAPPDATA\Programs\${PRODUCT}"
InstallDirRegKey HKCU "${UNINSTALL_KEY}" "InstallLocation"
BrandingText "${PRODUCT} ${VERSION}"

!include "MUI2.nsh"
!include "LogicLib.nsh"
!include "WinMessages.nsh"

!define MUI_ICON "${ICON_FILE}"
!define MUI_UNICON "${ICON_FILE}"
!define MUI_FINISHPAGE_RUN "$INSTDIR\tkeyagent.exe"
!define MUI_FINISHPAGE_RUN_TEXT "Start ${PRODUCT} now"
!insertmacro MUI_PAGE_DIRECTORY
!insertmacro MUI_PAGE_INSTFILES
!insertmacro MUI_PAGE_FINISH
!insertmacro MUI_UNPAGE_CONFIRM
!insertmacro MUI_UNPAGE_INSTFILES
!insertmacro MUI_LANGUAGE "English"

VIProductVersion "${VERSION}.0"
VIAddVersionKey /LANG=${LANG_ENGLISH} "ProductName" "${PRODUCT}"
VIAddVersionKey /LANG=${LANG_ENGLISH} "FileDescription" "${PRODUCT} Setup"
VIAddVersionKey /LANG=${LANG_ENGLISH} "FileVersion" "${VERSION}"
VIAddVersionKey /LANG=${LANG_ENGLISH} "ProductVersion" "${VERSION}"
VIAddVersionKey /LANG=${LANG_ENGLISH} "LegalCopyright" ""

; Sends WM_CLOSE to the top-level window of class CLASS titled TITLE ("" for
; any title), if there is one, and waits (at most 15 s) for its process to
; end so that the program's files can be replaced or removed.
!macro CLOSE_PROGRAM CLASS TITLE
  FindWindow $0 "${CLASS}" "${TITLE}"
  ${If} $0 <> 0
    System::Call 'user32::GetWindowThreadProcessId(p r0, *i .r1) i'
    System::Call 'kernel32::OpenProcess(i 0x00100000, i 0, i r1) p .r2'
    SendMessage $0 ${WM_CLOSE} 0 0 /TIMEOUT=5000
    ${If} $2 P<> 0
      System::Call 'kernel32::WaitForSingleObject(p r2, i 15000) i'
      System::Call 'kernel32::CloseHandle(p r2) i'
    ${EndIf}
  ${EndIf}
!macroend

; Ends the agent through its hidden window (it closes the manager window as
; it goes), then a manager window that is still open.
!macro STOP_AGENT
  !insertmacro CLOSE_PROGRAM "${AGENT_CLASS}" ""
  !insertmacro CLOSE_PROGRAM "#32770" "${PRODUCT}"
!macroend

Function .onInit
  SetShellVarContext current
FunctionEnd

Function un.onInit
  SetShellVarContext current
FunctionEnd

Var agent_was_running

Section "Install"
  ; An agent running from an earlier installation is stopped for the
  ; upgrade and started again afterwards.
  FindWindow $agent_was_running "${AGENT_CLASS}"
  !insertmacro STOP_AGENT
  SetOutPath "$INSTDIR"
  File "${SOURCE_DIR}\tkeyagent.exe"
  File "${SOURCE_DIR}\tagent.exe"
  File "${SOURCE_DIR}\tagent.dll"
  File "${SOURCE_DIR}\pki.dll"
  File "${SOURCE_DIR}\libcrypto-3-x64.dll"
  File "${SOURCE_DIR}\tarnwell-key-agent.html"
  WriteUninstaller "$INSTDIR\Uninstall.exe"

  CreateShortCut "${SHORTCUT}" "$INSTDIR\tagent.exe" "" "$INSTDIR\tkeyagent.exe" 0 SW_SHOWNORMAL "" \
    "Manage the keys of ${PRODUCT}"
  WriteRegStr HKCU "${RUN_KEY}" "${PRODUCT}" '"$INSTDIR\tkeyagent.exe"'

  WriteRegStr HKCU "${UNINSTALL_KEY}" "DisplayName" "${PRODUCT}"
  WriteRegStr HKCU "${UNINSTALL_KEY}" "DisplayVersion" "${VERSION}"
  WriteRegStr HKCU "${UNINSTALL_KEY}" "DisplayIcon" "$INSTDIR\tkeyagent.exe"
  WriteRegStr HKCU "${UNINSTALL_KEY}" "Publisher" "Tarnwell"
  WriteRegStr HKCU "${UNINSTALL_KEY}" "InstallLocation" "$INSTDIR"
  WriteRegStr HKCU "${UNINSTALL_KEY}" "UninstallString" '"$INSTDIR\Uninstall.exe"'
  WriteRegStr HKCU "${UNINSTALL_KEY}" "QuietUninstallString" '"$INSTDIR\Uninstall.exe" /S'
  WriteRegDWORD HKCU "${UNINSTALL_KEY}" "NoModify" 1
  WriteRegDWORD HKCU "${UNINSTALL_KEY}" "NoRepair" 1

  ${If} $agent_was_running <> 0
    Exec '"$INSTDIR\tkeyagent.exe"'
  ${EndIf}
SectionEnd

Section "Uninstall"
  !insertmacro STOP_AGENT
  Delete "$INSTDIR\tkeyagent.exe"
  Delete "$INSTDIR\tagent.exe"
  Delete "$INSTDIR\tagent.dll"
  Delete "$INSTDIR\pki.dll"
  Delete "$INSTDIR\libcrypto-3-x64.dll"
  Delete "$INSTDIR\tarnwell-key-agent.html"
  Delete "$INSTDIR\Uninstall.exe"
  RMDir "$INSTDIR"
  Delete "${SHORTCUT}"
  DeleteRegValue HKCU "${RUN_KEY}" "${PRODUCT}"
  DeleteRegKey HKCU "${UNINSTALL_KEY}"

  ; The key store, the settings and the log live in the user's roaming
  ; application folder. A silent uninstall keeps them, as does "Yes".
  MessageBox MB_YESNO|MB_ICONQUESTION \
    "Keep your stored keys and agent settings for a later installation?$\n$\n\
Choose No to delete them from $APPDATA\${PRODUCT}." /SD IDYES IDYES keep
    Delete "$APPDATA\${PRODUCT}\tAgentKeys"
    Delete "$APPDATA\${PRODUCT}\tAgentKeys.pub"
    Delete "$APPDATA\${PRODUCT}\tAgent"
    Delete "$APPDATA\${PRODUCT}\tAgentLog.txt"
    Delete "$APPDATA\${PRODUCT}\kvllog.ini"
    RMDir "$APPDATA\${PRODUCT}"
  keep:
SectionEnd
