#include "multicast_params.h"

#include <cstdlib>
#include <vector>

namespace {

std::vector<std::string> SplitWords(const std::string& text) {
  std::vector<std::string> words;
  std::string word;
  bool inWord = false, quoted = false;
  for (char c : text) {
    if (c == '"') {
      quoted = !quoted;
      inWord = true;
    } else if ((c == ' ' || c == '\t') && !quoted) {
      if (inWord) words.push_back(word);
      word.clear();
      inWord = false;
    } else {
      word.push_back(c);
      inWord = true;
    }
  }
  if (inWord) words.push_back(word);
  return words;
}

bool ParseNumber(const std::string& text, int low, int high, int& out) {
  if (text.empty()) return false;
  char* end = nullptr;
  long v = strtol(text.c_str(), &end, 10);
  if (*end != '\0' || v < low || v > high) return false;
  out = static_cast<int>(v);
  return true;
}

}  // namespace

bool ParseMulticastParams(const std::string& text, MulticastParams& out, std::string& error) {
  std::vector<std::string> words = SplitWords(text);
  for (size_t i = 0; i < words.size(); ++i) {
    const std::string& w = words[i];
    if (w.rfind("-UA=", 0) == 0) {
      out.statusAddress = w.substr(4);
      continue;
    }
    if (w.rfind("-UP=", 0) == 0) {
      if (!ParseNumber(w.substr(4), 1, 65535, out.statusPort)) {
        error = "bad status port in '" + w + "'";
        return false;
      }
      continue;
    }
    if (w.size() != 2 || w[0] != '-') {
      error = "unexpected '" + w + "'";
      return false;
    }
    if (i + 1 >= words.size()) {
      error = "option " + w + " needs a value";
      return false;
    }
    const std::string& v = words[++i];
    int seconds = 0;
    switch (w[1]) {
      case 'D':
        out.deviceFolder = v;
        break;
      case 'M':
        out.multicastAddress = v;
        break;
      case 'I':
        out.interfaceAddress = v;
        break;
      case 'P':
        if (!ParseNumber(v, 1, 65535, out.port)) {
          error = "bad port '" + v + "'";
          return false;
        }
        break;
      case 'T':
      case 'W':
        if (!ParseNumber(v, 1, 86400, seconds)) {
          error = "bad time-out '" + v + "'";
          return false;
        }
        (w[1] == 'T' ? out.startTimeoutMs : out.idleTimeoutMs) = seconds * 1000;
        break;
      default:
        error = "unknown option " + w;
        return false;
    }
  }
  if (out.deviceFolder.empty()) {
    error = "no device folder (-D)";
    return false;
  }
  return true;
}
