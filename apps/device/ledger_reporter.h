// Reports the ledger to a local service. The program does this, not the kit: an app's kit never sends its ledger.
#pragma once

#include <functional>
#include <string>

#include "kit/transport.h"
#include "morvik/ledger.h"

namespace morvik_device {

/// Timeout of a report.
inline constexpr double kReportTimeoutSeconds = 5;

/// Not thread-safe.
class LedgerReporter {
 public:
  /// `transport` outlives it, and runs its handlers on another thread or at once. `service_url`: the base URL of a
  /// morvik-service. `complain` gets one line for people if the report failed.
  LedgerReporter(morvik::kit::Transport& transport, std::string service_url, std::string install,
                 std::function<void(const std::string& line)> complain);

  /// Reports the ledger unless it is the one reported last. Blocks until the service has answered, at most a little
  /// longer than kReportTimeoutSeconds. The next call retries a failed report; the same complaint is made once.
  void tell(const morvik::Ledger& ledger);

 private:
  void complain(const std::string& line);

  morvik::kit::Transport& transport_;
  const std::string url_;
  const std::string install_;
  const std::function<void(const std::string& line)> complain_;
  std::string last_told_;
  std::string last_complaint_;  ///< without its duration
};

}  // namespace morvik_device
