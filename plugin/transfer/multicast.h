// Multicast reception: the host's receiver runs with the job's parameters while a status thread
// turns its datagrams into progress.
#pragma once

#include "platform/wintypes.h"

class UpgradeConfig;

// Runs one whole reception; returns when the receiver's Start returns.
void StartMulticastClient(UpgradeConfig* config);
// Binds the status socket from port 5655 upward; the bound port goes to *port. 1 when created.
int CreateStatusThreadSocket(int* port);
// Ends the status thread and closes its socket.
void CloseStatusThreadSocket();
DWORD StatusThread(LPVOID parameter);
// Copies the receiver's version text into text (at most 63 characters and the terminator).
int GetMClientVersion(char* text);

// Decoded status datagram. Any length is read within bounds.
struct MCStatus {
  int progress;
  DWORD amount;
  char text[256];
};
void DecodeStatusDatagram(const unsigned char* data, int length, MCStatus* out);
