// Fault points for the torture and kill tests (libfiu), compiled in only with FTC_FAULTS.
// FTC_FAULT(name, error) is true when the point fires, with errno set to error: the caller then
// fails as it would on that error from the system. While no point is enabled a point costs one
// lookup in libfiu; without FTC_FAULTS it is the constant false.
#pragma once

#ifdef FTC_FAULTS
#ifndef FIU_ENABLE
#define FIU_ENABLE 1  // fiu.h makes every point a constant without it
#endif
#include <fiu.h>

#include <cerrno>
#define FTC_FAULT(name, error) (fiu_fail(name) != 0 && (errno = (error), true))
// A moment rather than a failure: it fires only to be killed at (FTC_FAULT_ACTION=kill).
#define FTC_FAULT_MOMENT(name) ((void)fiu_fail(name))
#else
#define FTC_FAULT(name, error) false
#define FTC_FAULT_MOMENT(name) ((void)0)
#endif

namespace hostbase {

// Enables the points FTC_FAULT_POINTS names (a libfiu name, '*' at the end matches a prefix),
// firing at hit FTC_FAULT_NTH of any of them ("fail", or "kill" for SIGKILL, after
// FTC_FAULT_ACTION). FTC_FAULT_TALLY names a file that gets, at exit and before a kill, the
// lines "hits <n>", "fired <point or ->" and "<point> <hits>" for each point hit. Call once per
// process, from one place (libwinux, ftc-server).
void ArmFaultsFromEnvironment();

}  // namespace hostbase
