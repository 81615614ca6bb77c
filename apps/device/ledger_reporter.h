// Tells a local service what became of all that the device recorded. The program does this, not the kit: an app's kit
// sends nothing of its ledger.
#pragma once

#include <functional>
#include <string>

#include "kit/transport.h"
#include "morvik/ledger.h"

namespace morvik_device {

/// So long a service may take to answer.
inline constexpr double kReportTimeoutSeconds = 5;

/// Not for several threads at once.
class LedgerReporter {
 public:
  /// `transport` outlives it, and runs its handlers on another thread or at once. `service_url`: the base URL of a
  /// morvik-service. `complain` gets one line for people when the service could not be told.
  LedgerReporter(morvik::kit::Transport& transport, std::string service_url, std::string install,
                 std::function<void(const std::string& line)> complain);

  /// Tells the ledger, unless it was told last. Blocks until the service has answered, or a little longer than
  /// kReportTimeoutSeconds. What could not be told is tried again with the next call; the same complaint comes once.
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
