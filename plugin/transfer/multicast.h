// The multicast receiver: the host's receiver runs with a job's parameters while a status thread
// turns its datagrams into progress on the display.
#pragma once

#include <cstddef>

#include "platform/wintypes.h"

// Told the byte count of each file the receiver reports complete.
typedef void (*MCFileDoneFunction)(DWORD bytes);

// Runs one reception with parameters (the receiver's command line, capacity bytes, appended to
// with the status address when the status thread starts); returns when the receiver's Start
// returns. fileDone may be null.
void RunMulticastReceiver(char* parameters, size_t capacity, MCFileDoneFunction fileDone);
// Binds the status socket from port 5655 upward; the bound port goes to *port. 1 when created.
int CreateStatusThreadSocket(int* port);
// Ends the status thread and closes its socket.
void CloseStatusThreadSocket();
// Thread entry; parameter points to an MCFileDoneFunction (or is null) that outlives the thread.
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
