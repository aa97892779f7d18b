#include "log/display.h"

#include <cstdarg>
#include <cstdio>

#include "platform/display.h"

void SetBacklightRequirement(int on) {
  WinuxDisplayBacklight(on);
}
void SetStatusText(wchar_t* text) {
  WinuxDisplayStatusText(text);
}
void HideGUI() {
  WinuxDisplayHide();
}
void DestroyGUI() {
  WinuxDisplayDestroy();
}
void SetProgress1(int percent) {
  WinuxDisplayProgress1(percent);
}
void CompleteProgress1() {
  WinuxDisplayComplete1();
}
void SetProgress2(int percent) {
  WinuxDisplayProgress2(percent);
}
void CompleteProgress2() {
  WinuxDisplayComplete2();
}

namespace {
void ForwardMessage(const char* format, va_list args) {
  if (!format) return;
  char text[1024];
  vsnprintf(text, sizeof text, format, args);
  WinuxDisplayMessage(text);
}
}  // namespace

void OutputGUIMsgA(const char* format, ...) {
  va_list args;
  va_start(args, format);
  ForwardMessage(format, args);
  va_end(args);
}

void OutputGUIMsgW(const char* format, ...) {
  va_list args;
  va_start(args, format);
  ForwardMessage(format, args);
  va_end(args);
}
