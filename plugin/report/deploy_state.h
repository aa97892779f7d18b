// Device-state reports to the management server: AutoDeploy ("Settings Installed") and the
// ready-to-work state. Each goes up through the host's callback and, only when the host has no
// channel, through the message queue ("QV_CLIENT"). Serialised with each other.
#pragma once

#include "platform/wintypes.h"

// value is put into the record as given (not escaped).
void SetAutoDeployState(const char* value);
// state is written as a signed decimal; reason is put in as given (not escaped).
void SetIRIStatus(DWORD state, const char* reason);

// Hooks the device leaves empty.
void SetupProvisioning(const char* value);
void CheckStartProvisioningGUI();
