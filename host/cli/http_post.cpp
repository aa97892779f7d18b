#include "http_post.h"

#include <curl/curl.h>

#include <algorithm>
#include <mutex>

namespace ftchost {

namespace {

// Answers are small JSON documents; anything longer is not one we can use.
constexpr size_t kMaxAnswer = 1 << 20;
constexpr long kConnectTimeoutMs = 10000;
// A store that commits slowly still answers well within this.
constexpr long kRequestTimeoutMs = 120000;

size_t Collect(char* data, size_t size, size_t count, void* user) {
  std::string* out = static_cast<std::string*>(user);
  size_t n = size * count;
  if (out->size() < kMaxAnswer) out->append(data, std::min(n, kMaxAnswer - out->size()));
  return n;
}

}  // namespace

HttpClient::HttpClient() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
  m_curl = curl_easy_init();
}

HttpClient::~HttpClient() {
  if (m_curl) curl_easy_cleanup(static_cast<CURL*>(m_curl));
}

HttpAnswer HttpClient::PostJson(const std::string& url, const std::string& body) {
  return Perform(url, &body);
}

HttpAnswer HttpClient::Get(const std::string& url) {
  return Perform(url, nullptr);
}

HttpAnswer HttpClient::Perform(const std::string& url, const std::string* body) {
  HttpAnswer answer;
  CURL* curl = static_cast<CURL*>(m_curl);
  if (!curl) {
    answer.error = "cannot start an HTTP client";
    return answer;
  }
  try {
    curl_slist* headers = nullptr;
    if (body) {
      headers = curl_slist_append(nullptr, "Content-Type: application/json");
      // No "Expect: 100-continue" round trip before large batches.
      headers = curl_slist_append(headers, "Expect:");
      curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body->data());
      curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body->size()));
    } else {
      curl_easy_setopt(curl, CURLOPT_HTTPGET, 1L);
    }
    char error[CURL_ERROR_SIZE] = "";
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Collect);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer.body);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, error);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, kConnectTimeoutMs);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, kRequestTimeoutMs);
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    CURLcode rc = curl_easy_perform(curl);
    curl_slist_free_all(headers);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, nullptr);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, nullptr);
    if (rc != CURLE_OK) {
      answer.error = *error ? error : curl_easy_strerror(rc);
      answer.body.clear();
      return answer;
    }
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &answer.status);
    curl_off_t retry = 0;
    if (curl_easy_getinfo(curl, CURLINFO_RETRY_AFTER, &retry) == CURLE_OK && retry > 0)
      answer.retryAfter = static_cast<long>(retry);
  } catch (...) {
    answer = HttpAnswer();
    answer.error = "out of memory";
  }
  return answer;
}

}  // namespace ftchost
