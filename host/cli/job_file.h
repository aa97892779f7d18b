// The job file: a management server's configuration document replayed as group and field calls.
#pragma once

#include <string>
#include <vector>

namespace ftchost {

struct JobCall {
  enum Kind { kBeginGroup, kSetField, kEndGroup };
  Kind kind;
  std::string name;
  std::string value;  // fields only
  int line;           // where the element starts in the file, for messages
};

struct JobFile {
  std::vector<JobCall> calls;
  // Download entries named by the job, kept so the host can check the result on the device.
  struct File {
    std::string source, dest, crc, masks;
  };
  std::vector<File> files;
  // The multicast list file (a FileList group), if the job names one.
  File listFile;
  bool hasListFile = false;
  bool hasUpgrade = false;
};

// Parses text into calls. On failure returns false and sets error to a message carrying the line
// and column.
bool ParseJob(const std::string& text, JobFile* job, std::string* error);
bool LoadJob(const std::string& path, JobFile* job, std::string* error);

}  // namespace ftchost
