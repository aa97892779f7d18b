// Where the group/field protocol hands work to other subsystems. Each lives in its own file so
// the subsystem that implements the work can take it over.
#pragma once

#include <cstdint>

#include "config/records.h"

// Upgrade group opened: 0, or ICFG_E_IN_PROGRESS while an upgrade runs (upgrade_close.cpp).
uint32_t OnUpgradeGroupOpen();
// Upgrade group closed: checks and starts the job in gpUpgCfg; 0 or an ICFG_E_* code
// (upgrade_close.cpp).
uint32_t OnUpgradeGroupClose();
// The Provisioning field; returns the result of reading the unique id (provisioning.cpp).
uint32_t OnProvisioningField(const char* value);
// BundleName set inside ClearQVBundles (clear_bundles.cpp).
void OnClearQVBundles(const char* bundleName);
// PullFile closed; takes the entry, which may be null (pull_file.cpp).
void OnPullFileClose(tagPullFileEntry* entry);
// The Protocol Version field: writes the receiver's version text into out (its capacity is the
// host's business, as on the device) and its length into *length (protocol_version.cpp).
uint32_t OnProtocolVersion(char* out, uint32_t* length);
