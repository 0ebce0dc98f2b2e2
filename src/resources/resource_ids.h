// Resource and control ids. Plain defines, because the resource compiler reads them too.
#pragma once

#define IDI_TOOL 101
#define IDD_STATUS 161
#define IDB_BANNER 163

#define IDC_STATUS 1004    // status line
#define IDC_PROGRESS 1005  // the three dots
#define IDC_HEADING 1013   // large heading line, kept empty
#define IDC_MINIMISE 1014  // minimise mark
