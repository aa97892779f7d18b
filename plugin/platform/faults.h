// Fault points of the host's torture and kill tests, in builds with FTC_FAULTS only: the host
// says whether the named point fires, and the caller then fails as the system would with error.
// Elsewhere the check is the constant false and the host need not supply anything.
#pragma once

#ifdef FTC_FAULTS
#include <errno.h>

#include "platform/wintypes.h"

extern "C" WINUX_API int WinuxFault(const char* name);
#define FTC_PLUGIN_FAULT(name, error) (WinuxFault(name) != 0 && (errno = (error), true))
#else
#define FTC_PLUGIN_FAULT(name, error) false
#endif
