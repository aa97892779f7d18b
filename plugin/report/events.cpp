#include "report/events.h"

#include <cstdio>
#include <cstring>
#include <mutex>

#include "platform/plix.h"
#include "platform/winux.h"
#include "report/xq_transport.h"

namespace {

// Copies of the last event sent, kept as the device keeps them.
char g_szUniqueId[64];
DWORD g_dwSystem;
DWORD g_dwEvent;
char g_szMsg[1024];

// Serialises SendDeviceEvent: the copies above are shared by every sending thread.
std::mutex g_eventLock;

void CopyBounded(char* out, size_t size, const char* text) {
  if (!text) text = "";
  size_t n = strnlen(text, size - 1);
  memcpy(out, text, n);
  out[n] = '\0';
}

void SetNumber(CPlixElement* field, int32_t value) {
  char text[16];
  snprintf(text, sizeof text, "%d", static_cast<int>(value));
  field->SetData(text);
}

// Adds the next field after *last; keeps the chain going only when the insert worked.
CPlixElement* NextField(CPlixElement** last, const char* name) {
  if (!*last) return nullptr;
  CPlixElement* field = (*last)->InsertNextSibling("Field");
  if (!field) return nullptr;
  field->SetAttribute("Name", name);
  *last = field;
  return field;
}

void AddText(CPlixElement** last, const char* name, const char* text) {
  if (CPlixElement* f = NextField(last, name)) f->SetData(text ? text : "");
}

void AddNumber(CPlixElement** last, const char* name, int32_t value) {
  if (CPlixElement* f = NextField(last, name)) SetNumber(f, value);
}

}  // namespace

int getTimeStamp(char* buffer, unsigned size, QV_DATE_SEPARATOR_TYPE type) {
  if (!buffer || size == 0) return 0;
  memset(buffer, 0, size);
  SYSTEMTIME now;
  memset(&now, 0, sizeof now);
  GetLocalTime(&now);
  wchar_t date[32];
  wchar_t time[32];
  memset(date, 0, sizeof date);
  memset(time, 0, sizeof time);
  GetDateFormat(0, 0, &now, type == QV_DATE_SLASHES ? L"yyyy/MM/dd" : L"MM:dd:yyyy", date, 32);
  GetTimeFormat(0, 3, &now, L"hh:mm:ss", time, 32);
  size_t dateLen = wcsnlen(date, 32);
  size_t timeLen = wcsnlen(time, 32);
  if (dateLen + timeLen + 2 > size) return 0;
  size_t at = 0;
  // Date and time pictures yield digits and separators only.
  for (size_t i = 0; i < dateLen; ++i) buffer[at++] = static_cast<char>(date[i]);
  buffer[at++] = ':';
  for (size_t i = 0; i < timeLen; ++i) buffer[at++] = static_cast<char>(time[i]);
  buffer[at] = '\0';
  return 1;
}

void errorToXML(CPlixDOM* dom, char** xmlOut, int system, const char* subsystem,
                const char* uniqueId, int severity, int32_t msgNum, int32_t timestamp,
                const char* timestampString, const char* fcnName, int lineNum,
                const char** indexableArray, const char** optArgArray, unsigned count,
                uint32_t systemRc) {
  if (xmlOut) *xmlOut = nullptr;
  if (!dom || !xmlOut) return;
  CPlixElement* root = dom->GetRootElement();
  if (!root) return;
  root->SetAttribute("Action", "Notify");
  CPlixElement* sub = root->InsertChild("Subsystem");
  if (!sub) return;
  sub->SetAttribute("Name", "QV_EVENT_DB");
  CPlixElement* group = sub->InsertChild("Group");
  if (!group) return;
  group->SetAttribute("Name", "errorLogMsg");
  CPlixElement* last = group->InsertChild("Field");
  if (!last) return;
  if (timestampString) {
    // The server reads the numeric stamp: the text form is set and then replaced on the same
    // element, and the record carries only "timestamp".
    last->SetAttribute("Name", "timestampString");
    last->SetData(timestampString);
    last->SetAttribute("Name", "timestamp");
    SetNumber(last, timestamp);
  }
  AddNumber(&last, "system", system);
  AddText(&last, "subsystem", subsystem);
  AddText(&last, "uniqueId", uniqueId);
  AddNumber(&last, "msgNum", msgNum);
  AddText(&last, "fcnName", fcnName);
  AddNumber(&last, "severity", severity);
  AddNumber(&last, "lineNum", lineNum);
  if (indexableArray) {
    static const char* const kIndexNames[4] = {"indexableArrayP1Element", "indexableArrayP2Element",
                                               "indexableArrayP3Element",
                                               "indexableArrayP4Element"};
    for (int i = 0; i < 4; ++i) {
      if (indexableArray[i]) AddText(&last, kIndexNames[i], indexableArray[i]);
    }
  }
  if (optArgArray) {
    for (unsigned i = 0; i < count; ++i) AddText(&last, "optArgArrayElement", optArgArray[i]);
  }
  AddNumber(&last, "systemRc", static_cast<int32_t>(systemRc));
  char* text = nullptr;
  if (dom->WriteDoc(&text) == 1) {
    *xmlOut = text;
  } else if (text) {
    LocalFree(text);
  }
}

void SendDeviceEvent(const char* uniqueId, DWORD system, DWORD event, const char* message) {
  try {
    std::lock_guard<std::mutex> lock(g_eventLock);
    InitXQTransfer();
    CopyBounded(g_szUniqueId, sizeof g_szUniqueId, uniqueId);
    g_dwSystem = system;
    g_dwEvent = event;
    CopyBounded(g_szMsg, sizeof g_szMsg, message);
    if (!GetXQTransferState().handle) return;

    CPlixDOM dom("DevInfo");
    char stamp[33];
    memset(stamp, 0, sizeof stamp);
    getTimeStamp(stamp, 32, QV_DATE_SLASHES);
    const char* optArgs[1] = {g_szMsg};
    char* xml = nullptr;
    errorToXML(&dom, &xml, static_cast<int>(g_dwSystem), "QV_UPGD_SRVR", g_szUniqueId, 3,
               static_cast<int32_t>(g_dwEvent), 0, stamp, "SendDeviceEvent", 1, nullptr, optArgs, 1,
               0);
    if (xml) {
      XQWriteMessage("QV_Event_DB", xml, "~MASTERXQ");
      LocalFree(xml);
    }
  } catch (...) {
    // A report must never take the sending thread down with it.
  }
}
