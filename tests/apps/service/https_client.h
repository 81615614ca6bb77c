// A client for tests over a real TLS connection.
#pragma once

#include <curl/curl.h>

#include <string>
#include <string_view>
#include <vector>

namespace morvik_service::test {

struct Answer {
  CURLcode result = CURLE_OK;
  long status = 0;
  std::string body;
  std::string content_type;
  std::string own_header;  // "X-Own"
};

// One handle, hence one persistent connection. Verifies certificate and name against `authority_file`. Not
// thread-safe.
class HttpsClient {
 public:
  // Connects from `own_address`, if given.
  HttpsClient(std::string base_url, std::string authority_file, std::string own_address = "");
  HttpsClient(const HttpsClient&) = delete;
  HttpsClient& operator=(const HttpsClient&) = delete;
  ~HttpsClient();

  Answer get(const std::string& path);
  // Closes the connection at the first byte of the answer.
  Answer getAndLeave(const std::string& path);
  // Form-encoded unless a header says otherwise.
  Answer post(const std::string& path, const std::string& body, const std::vector<std::string>& headers = {});
  Answer remove(const std::string& path);
  // Connects and sends nothing.
  CURLcode connect();
  // Sends these bytes as they are over the connection that `connect` opened.
  CURLcode send(std::string_view bytes);
  // What arrives next on the connection that `connect` opened; "" if nothing does.
  std::string receive();
  // Waits for the server to close the persistent connection; false if it does not.
  bool waitUntilClosed();

 private:
  Answer perform(const std::string& path, const std::vector<std::string>& headers);
  void prepare();
  bool waitFor(short events);

  const std::string base_url_;
  const std::string authority_file_;
  const std::string own_address_;
  CURL* handle_;
};

}  // namespace morvik_service::test
