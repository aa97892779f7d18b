// Checks made before a job is accepted and before its files are installed.
#pragma once

#include "platform/wintypes.h"

class UpgradeConfig;

// 1 when every registry test passes; else 0 with the failing test's message in errorText
// (256 bytes, may be null).
int PerformTests(UpgradeConfig* cfg, char* errorText);
// 1 when a firmware package of the running job asks for space on a card whose name begins with
// cardName and that space is free.
int IsSDCardValid(char* cardName);
// The "DiskSize=<card>:<bytes>" item of a package's parameters for this pass: the size (0 when
// none) and the card name into cardName (128 bytes).
int GetDiskSizeCheckFromParms(const char* parms, DWORD pass, char* cardName);
int IsSpaceAvailableOnSDCard(ULONGLONG bytes);
// Hooks for a battery and an overall space check; both pass on this device.
int IsPowerOK();
int CheckSpace(UpgradeConfig* cfg, DWORD* pTotal);
