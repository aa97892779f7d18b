// The job's multicast step: the receiver runs with the job's parameters and its finished files
// count towards the job's overall progress.
#pragma once

class UpgradeConfig;

// Runs one whole reception; returns when the receiver's Start returns.
void StartMulticastClient(UpgradeConfig* config);
