// Reads the inspection of a running service over HTTPS.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "apps/service/base/json.h"

namespace morvik_service {

/// One persistent connection. Verifies the service's certificate. Not thread-safe.
class InspectionClient {
 public:
  /// `url` ends with a slash; `authority_file` holds the certificates to trust.
  InspectionClient(std::string url, std::string authority_file);
  InspectionClient(const InspectionClient&) = delete;
  InspectionClient& operator=(const InspectionClient&) = delete;
  ~InspectionClient();

  /// The next requests after this number; waits for the first at most this long, or as long as the service allows.
  /// Throws SetupError if the service cannot be reached or does not answer with a listing.
  Json requestsAfter(std::int64_t after, std::chrono::milliseconds patience);

  /// The number of the newest request, 0 if there is none. Throws SetupError.
  std::int64_t newestRequest();

 private:
  struct Handle;

  Json get(const std::string& path, std::chrono::milliseconds patience);

  const std::string url_;
  const std::string authority_file_;
  std::unique_ptr<Handle> handle_;
};

}  // namespace morvik_service
