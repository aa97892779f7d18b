// The job's status display: status line, per-file and overall progress bars, status messages.
// Each call forwards to the display the host registered; with none registered it does nothing.
#pragma once

#include <cwchar>

void SetBacklightRequirement(int on);
void SetStatusText(wchar_t* text);
void HideGUI();
void DestroyGUI();
void SetProgress1(int percent);
void CompleteProgress1();
void SetProgress2(int percent);
void CompleteProgress2();
// printf-style status messages.
void OutputGUIMsgA(const char* format, ...);
void OutputGUIMsgW(const char* format, ...);
