// JSON over HTTP POST for the delivery agent, on libcurl. One client keeps its connection alive
// between requests.
#pragma once

#include <string>

namespace ftchost {

struct HttpAnswer {
  long status = 0;       // 0: no answer (the error says why)
  std::string body;      // at most kMaxAnswer bytes are kept
  long retryAfter = -1;  // seconds from Retry-After, -1 when absent
  std::string error;     // transport failure, "" when an answer came
};

class HttpClient {
 public:
  HttpClient();
  ~HttpClient();
  HttpClient(const HttpClient&) = delete;
  HttpClient& operator=(const HttpClient&) = delete;

  // Posts body as application/json to url. Never throws.
  HttpAnswer PostJson(const std::string& url, const std::string& body);

 private:
  void* m_curl = nullptr;
};

}  // namespace ftchost
