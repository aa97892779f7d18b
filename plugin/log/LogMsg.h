// The plug-in's log: every diagnostic line goes through LogMsg, either to the local log file or,
// when the job names a remote receiver, to it as a syslog-style UDP datagram.
#pragma once

#include <cwchar>

// printf-style; the caller supplies the line end ("\r\n"). Thread-safe (a named mutex).
void LogMsg(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Chooses the destination for the job: a dotted address and a non-zero port select UDP.
void SysLogInit(const char* address, unsigned short port);
void SysLogClose();
// Wide to narrow into a buffer this module owns (valid until the next call).
char* SysLogToASCII(const wchar_t* text);
