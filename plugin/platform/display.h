// The status display: the plug-in's display operations forward here. A host that has a display
// registers it; with none registered every call does nothing.
#pragma once

#include "platform/wintypes.h"

extern "C" {

struct WinuxStatusDisplay {
  void* context;
  void (*statusText)(void* context, const wchar_t* text);
  void (*message)(void* context, const char* text);
  void (*progress1)(void* context, int percent);
  void (*progress2)(void* context, int percent);
  void (*complete1)(void* context);
  void (*complete2)(void* context);
  void (*hide)(void* context);
  void (*destroy)(void* context);
  void (*backlight)(void* context, int on);
};

// The table is copied; null unregisters. Any member may be null.
WINUX_API void WinuxRegisterStatusDisplay(const WinuxStatusDisplay* display);

WINUX_API void WinuxDisplayStatusText(const wchar_t* text);
WINUX_API void WinuxDisplayMessage(const char* text);
WINUX_API void WinuxDisplayProgress1(int percent);
WINUX_API void WinuxDisplayProgress2(int percent);
WINUX_API void WinuxDisplayComplete1(void);
WINUX_API void WinuxDisplayComplete2(void);
WINUX_API void WinuxDisplayHide(void);
WINUX_API void WinuxDisplayDestroy(void);
WINUX_API void WinuxDisplayBacklight(int on);
}
