#include "progress_view.h"

#include <cwchar>

#include "base/text.h"
#include "platform/display.h"

namespace ftchost {

namespace {

std::string Bar(int percent) {
  const int width = 20;
  if (percent < 0) percent = 0;
  if (percent > 100) percent = 100;
  int full = percent * width / 100;
  return "[" + std::string(full, '#') + std::string(width - full, '-') + "] " +
         std::to_string(percent) + "%";
}

ProgressView* View(void* context) {
  return static_cast<ProgressView*>(context);
}

// Drops the line ends the plug-in's texts carry, so each prints as one line.
std::string OneLine(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  for (char& c : text)
    if (c == '\r' || c == '\n') c = ' ';
  return text;
}

}  // namespace

ProgressView::ProgressView(FILE* out, bool terminal) : m_out(out), m_terminal(terminal) {}

ProgressView::~ProgressView() {
  if (m_registered) WinuxRegisterStatusDisplay(nullptr);
  Finish();
}

void ProgressView::Register() {
  WinuxStatusDisplay d{};
  d.context = this;
  d.statusText = [](void* c, const wchar_t* t) { View(c)->StatusText(hostbase::ToUtf8(t)); };
  d.message = [](void* c, const char* t) { View(c)->Message(t ? t : ""); };
  d.progress1 = [](void* c, int p) { View(c)->Progress1(p); };
  d.progress2 = [](void* c, int p) { View(c)->Progress2(p); };
  d.complete1 = [](void* c) { View(c)->Progress1(100); };
  d.complete2 = [](void* c) { View(c)->Progress2(100); };
  WinuxRegisterStatusDisplay(&d);
  m_registered = true;
}

void ProgressView::StatusText(const std::string& text) {
  std::lock_guard<std::mutex> lock(m_lock);
  m_status = OneLine(text);
  if (!m_terminal) {
    fprintf(m_out, "status: %s\n", m_status.c_str());
    fflush(m_out);
    return;
  }
  DrawLocked();
}

void ProgressView::Message(const std::string& text) {
  std::lock_guard<std::mutex> lock(m_lock);
  ClearLocked();
  fprintf(m_out, "  %s\n", OneLine(text).c_str());
  m_status = OneLine(text);
  DrawLocked();
}

void ProgressView::Progress1(int percent) {
  std::lock_guard<std::mutex> lock(m_lock);
  m_file = percent;
  if (m_terminal) return DrawLocked();
  // Without a terminal only steps of a tenth, so a big file does not flood the output.
  if (m_printedFile < 0 || percent / 10 != m_printedFile / 10 || percent == 100) {
    if (percent == m_printedFile) return;
    m_printedFile = percent;
    fprintf(m_out, "progress: file %s  overall %s\n", Bar(m_file).c_str(),
            Bar(m_overall < 0 ? 0 : m_overall).c_str());
    fflush(m_out);
  }
}

void ProgressView::Progress2(int percent) {
  std::lock_guard<std::mutex> lock(m_lock);
  m_overall = percent;
  if (m_terminal) return DrawLocked();
  if (m_printedOverall < 0 || percent / 10 != m_printedOverall / 10 || percent == 100) {
    if (percent == m_printedOverall) return;
    m_printedOverall = percent;
    fprintf(m_out, "progress: file %s  overall %s\n", Bar(m_file < 0 ? 0 : m_file).c_str(),
            Bar(m_overall).c_str());
    fflush(m_out);
  }
}

void ProgressView::Print(const std::string& line) {
  std::lock_guard<std::mutex> lock(m_lock);
  ClearLocked();
  fprintf(m_out, "%s\n", line.c_str());
  if (m_drawn || m_file >= 0 || m_overall >= 0) DrawLocked();
  fflush(m_out);
}

void ProgressView::Finish() {
  std::lock_guard<std::mutex> lock(m_lock);
  if (m_terminal && m_drawn) fprintf(m_out, "\n");
  m_drawn = false;
  fflush(m_out);
}

std::string ProgressView::BarsLocked() const {
  std::string s =
      "file " + Bar(m_file < 0 ? 0 : m_file) + "  overall " + Bar(m_overall < 0 ? 0 : m_overall);
  if (!m_status.empty()) s += "  " + m_status;
  if (s.size() > 150) s.resize(150);
  return s;
}

void ProgressView::DrawLocked() {
  if (!m_terminal) return;
  fprintf(m_out, "\r\033[K%s", BarsLocked().c_str());
  m_drawn = true;
  fflush(m_out);
}

void ProgressView::ClearLocked() {
  if (m_terminal && m_drawn) fprintf(m_out, "\r\033[K");
}

}  // namespace ftchost
