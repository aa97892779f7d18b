// OS firmware: fetching the packages of the current pass and starting the flash writer.
#pragma once

class UpgradeConfig;

// Both work on the running job (m_pUpgCfg).
int LoadOSFiles();
int LoadSomeFiles();
// Starts the job's flash writer, if it names one, with its assembled command line.
void StartUpgrade(UpgradeConfig* cfg);
int KillAnExe(char* path);
