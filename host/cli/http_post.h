// JSON over HTTP POST (and job files by GET) for the delivery and device agents, on libcurl. One
// client keeps its connection alive between requests.
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
  HttpAnswer Get(const std::string& url);

 private:
  HttpAnswer Perform(const std::string& url, const std::string* body);

  void* m_curl = nullptr;
};

}  // namespace ftchost
