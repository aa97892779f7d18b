// BundleName inside ClearQVBundles: the server asks to forget an installed bundle.
#include "bundles/bundle_records.h"
#include "configlet/call_points.h"

void OnClearQVBundles(const char* bundleName) {
  ClearQVBundleEntry(bundleName);
}
