// What the app is told of the kit's work: batches delivered, requests failed, events refused, an erasure answered. The
// latest success and failure, for MorvikCore::status(). The kit's life in a few log lines, at level 4.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "kit/MorvikCoreServicesLib.h"
#include "kit/clock.h"
#include "kit/endpoints.h"
#include "kit/transport.h"
#include "morvik/recorded.h"
#include "morvik/status.h"
#include "runtime/ledger/ledger_book.h"
#include "runtime/machine/machine.h"
#include "runtime/siblings/facade.h"
#include "services/MorvikGVUserDefaults.h"
#include "services/endpoints.h"
#include "services/log.h"

namespace morvik::runtime {

/// Refused events, per reason, that wait for the app to be told. Beyond this an event is refused without a call of the
/// delegate: otherwise an app that records refused events by the thousand would fill the main queue.
inline constexpr size_t kMaxPendingRefusals = 16;

/// References outlive the observations.
struct ObservationsParts {
  MachineLoop& main_loop;
  const Facade& facade;
  const kit::Clock& clock;
  services::MorvikGVUserDefaults store;
  services::Logger logger;
  kit::Endpoints endpoints;
  std::function<bool()> is_session_open;  ///< any thread
  /// Whether an erasure with this body erases the service's data about this device. Main queue.
  std::function<bool(const std::string& body)> names_this_device;
};

/// The app's slots are called on the main queue, each in a turn of its own after the event. Their exceptions end there,
/// with a log line.
class Observations {
 public:
  explicit Observations(ObservationsParts parts);

  /// An event of the app was refused. Not reported to the app: stored events, and calls of a kit that is not running.
  /// Any thread.
  void refused(Recorded reason);

  /// An exchange has ended, and its handler comes next. Main queue.
  void exchangeDidEnd(const kit::Request& request, const kit::ExchangeResult& result, const CarriedLoad& load);
  /// The next exchange to end is an erasure with this body. Main queue.
  void erasureDidEnd(std::string body) { ended_erasure_ = std::move(body); }
  /// A batch is leaving. Told in a turn of its own, since the sender must not wait. Any thread.
  void batchLeaves(size_t activities);
  /// Call wherever a session may have started or ended. Any thread.
  void sessionMayHaveChanged();
  void hostDidStart(const std::string& store_folder);
  /// `status`: as of then. Once.
  void instanceDidStop(Status status);

  /// Any thread.
  std::optional<Status::Time> lastSuccess() const;
  std::optional<Status::Failure> lastFailure() const;
  /// Nothing while the instance runs.
  std::optional<Status> statusAtStop() const;

 private:
  struct Ended {
    services::Endpoint endpoint;
    bool is_accepted;
    kit::Date when;
    DeliveryFailure failure;  ///< what is known before the handler has run
    CarriedLoad load;
    std::string erasure;  ///< body of an erasure
  };
  void note(Ended ended);
  void tell(const Ended& ended) const;
  bool isErased(const Ended& ended) const;
  bool isTriedAgain(const Ended& ended) const;
  static bool isOneTooLarge(const Ended& ended);
  bool isActivityKept(const kit::Value& id) const;
  bool isClickKept(const kit::Value& click) const;
  void logBatch(const Ended& ended);

  const ObservationsParts parts_;
  std::string ended_erasure_;
  std::array<std::atomic<size_t>, static_cast<size_t>(Recorded::kRefusedNotRunning)> pending_refusals_{};

  mutable std::mutex mutex_;  // guards what follows
  bool is_session_open_ = false;
  std::optional<Status::Time> last_success_;
  std::optional<Status::Failure> last_failure_;
  std::optional<Status> at_stop_;
};

}  // namespace morvik::runtime
