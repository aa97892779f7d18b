// The multicast list file: tokens separated by any run of commas, carriage returns and line
// feeds; every five consecutive tokens are one entry. The text ends at its first NUL, as it does
// on the device, which reads the list as a string.
#pragma once

#include <cstddef>
#include <string_view>

namespace ftc {

// One entry, viewing the text it was read from. No token is empty.
struct ListEntry {
  std::string_view source;  // on the server, relative to the base URL
  std::string_view dest;    // full device path; "RAM:..." lives in memory
  std::string_view masks;   // device masks separated by blanks or semicolons
  std::string_view crc;     // decimal; 0 means "not checked"
  std::string_view size;    // decimal bytes
};

// Reads entries in file order without copying. A final group of fewer than five tokens is no
// entry. REQUIRES: the text outlives the reader and the entries it gave.
class ListFileReader {
 public:
  explicit ListFileReader(std::string_view text);
  // False when no whole entry is left.
  bool Next(ListEntry* entry);

 private:
  std::string_view NextToken();

  std::string_view m_text;
  size_t m_pos = 0;
};

}  // namespace ftc
