// PullFile closed: one file fetched on a thread of its own.
#include "engine/pull_file.h"

#include "configlet/call_points.h"

void OnPullFileClose(tagPullFileEntry* entry) {
  StartPullFile(entry);
}
