#include "platform/display.h"

#include <mutex>

namespace {
std::mutex g_displayLock;
WinuxStatusDisplay g_display{};
bool g_registered = false;

// Calls one member of the registered display, if there is one and it has that member.
template <typename Member, typename... Args>
void Forward(Member member, Args... args) {
  std::lock_guard<std::mutex> lock(g_displayLock);
  if (g_registered && g_display.*member) (g_display.*member)(g_display.context, args...);
}
}  // namespace

extern "C" {
void WinuxRegisterStatusDisplay(const WinuxStatusDisplay* display) {
  std::lock_guard<std::mutex> lock(g_displayLock);
  g_registered = display != nullptr;
  g_display = display ? *display : WinuxStatusDisplay{};
}
void WinuxDisplayStatusText(const wchar_t* text) {
  Forward(&WinuxStatusDisplay::statusText, text ? text : L"");
}
void WinuxDisplayMessage(const char* text) { Forward(&WinuxStatusDisplay::message, text ? text : ""); }
void WinuxDisplayProgress1(int percent) { Forward(&WinuxStatusDisplay::progress1, percent); }
void WinuxDisplayProgress2(int percent) { Forward(&WinuxStatusDisplay::progress2, percent); }
void WinuxDisplayComplete1(void) { Forward(&WinuxStatusDisplay::complete1); }
void WinuxDisplayComplete2(void) { Forward(&WinuxStatusDisplay::complete2); }
void WinuxDisplayHide(void) { Forward(&WinuxStatusDisplay::hide); }
void WinuxDisplayDestroy(void) { Forward(&WinuxStatusDisplay::destroy); }
void WinuxDisplayBacklight(int on) { Forward(&WinuxStatusDisplay::backlight, on); }
}
