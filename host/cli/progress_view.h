// Draws the plug-in's status display: status line, file and overall progress bars, and the
// status messages. On a terminal the bars are redrawn in place; otherwise changes print as lines.
#pragma once

#include <cstdio>
#include <mutex>
#include <string>

namespace ftchost {

class ProgressView {
 public:
  ProgressView(FILE* out, bool terminal);
  ~ProgressView();
  ProgressView(const ProgressView&) = delete;
  ProgressView& operator=(const ProgressView&) = delete;

  // Registers this view as the platform's status display; unregistered on destruction.
  void Register();

  void StatusText(const std::string& text);
  void Message(const std::string& text);
  void Progress1(int percent);
  void Progress2(int percent);
  // A line from elsewhere (the host's callback, the replay) printed without tearing the bars.
  void Print(const std::string& line);
  // Leaves the bars as they are and moves below them.
  void Finish();

 private:
  void DrawLocked();
  void ClearLocked();
  std::string BarsLocked() const;

  std::mutex m_lock;
  FILE* m_out;
  bool m_terminal;
  bool m_registered = false;
  bool m_drawn = false;
  std::string m_status;
  int m_file = -1, m_overall = -1;
  int m_printedFile = -1, m_printedOverall = -1;
};

}  // namespace ftchost
