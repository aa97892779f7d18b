#include "common/list_file.h"

namespace ftc {

namespace {

bool IsSeparator(char c) {
  return c == ',' || c == '\r' || c == '\n';
}

}  // namespace

ListFileReader::ListFileReader(std::string_view text) : m_text(text.substr(0, text.find('\0'))) {}

std::string_view ListFileReader::NextToken() {
  while (m_pos < m_text.size() && IsSeparator(m_text[m_pos])) ++m_pos;
  size_t start = m_pos;
  while (m_pos < m_text.size() && !IsSeparator(m_text[m_pos])) ++m_pos;
  return m_text.substr(start, m_pos - start);
}

bool ListFileReader::Next(ListEntry* entry) {
  ListEntry e;
  for (std::string_view* field : {&e.source, &e.dest, &e.masks, &e.crc, &e.size}) {
    *field = NextToken();
    if (field->empty()) return false;
  }
  *entry = e;
  return true;
}

}  // namespace ftc
