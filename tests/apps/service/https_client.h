// A client for the tests that go over a real TLS connection.
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

// One handle, hence one kept connection. Verifies certificate and name against `authority_file`. Not for several
// threads at once.
class HttpsClient {
 public:
  // Calls from `own_address`, where one is given.
  HttpsClient(std::string base_url, std::string authority_file, std::string own_address = "");
  HttpsClient(const HttpsClient&) = delete;
  HttpsClient& operator=(const HttpsClient&) = delete;
  ~HttpsClient();

  Answer get(const std::string& path);
  // Closes the connection when the first byte of the answer is there.
  Answer getAndLeave(const std::string& path);
  // Form-encoded unless a header says otherwise.
  Answer post(const std::string& path, const std::string& body, const std::vector<std::string>& headers = {});
  Answer remove(const std::string& path);
  // Connects, and says nothing.
  CURLcode connect();
  // Sends these bytes over what `connect` made, as they are.
  CURLcode send(std::string_view bytes);
  // What comes next over what `connect` made; "" when nothing does.
  std::string receive();
  // Waits for the server to close the kept connection; false when it does not.
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
