// Shared pieces of the host classes and helpers (not part of the platform interface).
#pragma once

#include <exception>
#include <string>

// Runs body and gives fallback if it throws (out of memory, say): no exception reaches the
// plug-in. Only std::exception is caught, so a cancelled thread still unwinds through here.
template <typename R, typename Body>
R SdkNoThrow(R fallback, Body&& body) {
  try {
    return body();
  } catch (const std::exception&) {
    return fallback;
  }
}
