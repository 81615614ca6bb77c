// The service of devices on virtual machines, with what it opens their requests with.
#pragma once

#include <cstddef>
#include <functional>

#include "host/compress/zlib_compressor.h"
#include "host/crypto/openssl_cipher.h"
#include "testing/fake_crypto.h"
#include "testing/simulated_service.h"

namespace morvik::simulation {

/// A healthy service that has the keys of simulatedApp(). Any thread.
class VirtualService {
 public:
  /// `now` is the service's own clock. The latest `max_remembered` requests, and as many events, are kept.
  explicit VirtualService(std::function<kit::Date()> now, size_t max_remembered = testing::kMaxRecordedEntries);

  testing::SimulatedService& operator*() { return service_; }
  const testing::SimulatedService& operator*() const { return service_; }
  testing::SimulatedService* operator->() { return &service_; }
  const testing::SimulatedService* operator->() const { return &service_; }

 private:
  const host::OpensslCipher cipher_;
  const host::ZlibCompressor compressor_;
  testing::SeededRandom no_random_;  // opening draws nothing, but the tools name a source
  testing::SimulatedService service_;
};

}  // namespace morvik::simulation
