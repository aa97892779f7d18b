// Device events: an error-log record, built with the host DOM, written to the event queue.
#pragma once

#include "platform/wintypes.h"

class CPlixDOM;

// 0: "yyyy/MM/dd"; any other value: "MM:dd:yyyy".
enum QV_DATE_SEPARATOR_TYPE { QV_DATE_SLASHES = 0, QV_DATE_COLONS = 1 };

// Local date and time as "<date>:<hh:mm:ss>" (12-hour clock). 1 when written; 0 (buffer left
// empty) when buffer is null, size is 0 or the text would not fit with its terminator.
int getTimeStamp(char* buffer, unsigned size, QV_DATE_SEPARATOR_TYPE type);

// Completes dom (whose root the caller created) as an error-log record and writes its text to
// *xmlOut (free with LocalFree; null when writing failed). indexableArray (4 entries) and
// optArgArray (count entries) may be null.
void errorToXML(CPlixDOM* dom, char** xmlOut, int system, const char* subsystem,
                const char* uniqueId, int severity, int32_t msgNum, int32_t timestamp,
                const char* timestampString, const char* fcnName, int lineNum,
                const char** indexableArray, const char** optArgArray, unsigned count,
                uint32_t systemRc);

// Sends a device event (severity 3, message number = event) to "QV_Event_DB". Serialised; a
// missing transport skips the send. message may be null (an empty text is sent).
void SendDeviceEvent(const char* uniqueId, DWORD system, DWORD event, const char* message);

// Device event codes, always sent with system 20.
const DWORD QV_EVENT_SYSTEM = 20;
const DWORD QV_EVENT_UPGRADE_FAILED = 205180;
const DWORD QV_EVENT_UPGRADE_STARTED = 205181;
const DWORD QV_EVENT_UPGRADE_COMPLETE = 205182;
const DWORD QV_EVENT_PROVISIONING_STARTED = 205183;
const DWORD QV_EVENT_PROVISIONING_COMPLETE = 205184;
const DWORD QV_EVENT_PULLFILE_COMPLETE = 205185;
const DWORD QV_EVENT_PULLFILE_STARTED = 205186;
