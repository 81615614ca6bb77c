// Every request from its start to its handler.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>

#include "kit/transport.h"
#include "runtime/machine/machine.h"
#include "runtime/sending/handler_delivery.h"

namespace morvik::runtime {

/// shutdown() takes at most this long.
inline constexpr double kShutdownSeconds = 2;

/// A request waits here until the turn that started it is committed and its host has a free connection. When it leaves,
/// it is asked again whether it may. After that it belongs to the network. So the user's wish, the app's switch and the
/// limit of connections apply in one place, whatever network a machine has.
///
/// A request refused here because of the wish ends like one refused at its start: as not sent. An exchange that the
/// network has begun runs to its end.
class ExchangeQueue final : public MachineTransport {
 public:
  /// `parts`: as documented there; the file of authorities is the network's.
  ExchangeQueue(std::unique_ptr<MachineNetwork> network, TransportParts parts);
  ~ExchangeQueue() override;
  ExchangeQueue(const ExchangeQueue&) = delete;
  ExchangeQueue& operator=(const ExchangeQueue&) = delete;

  /// As in the port. No effect after shutdown().
  void start(kit::Request request, TransportHandler handler) override;
  /// Requests that wait for their turn's end or for a connection, are under way, or are answered with the handler still
  /// in the main queue. Any thread.
  size_t inFlight() const override { return delivery_->unanswered(); }
  void setHeld(bool held) override;
  void wishDidChange() override;
  /// Cancels what is in flight, within kShutdownSeconds. No handler begins from now on; one that runs on another thread
  /// is waited for. May be called again, and from inside a handler. The destructor calls it.
  void shutdown() override;

 private:
  class Line;

  TurnGate& gate_;
  const std::shared_ptr<HandlerDelivery> delivery_;
  const std::shared_ptr<Line> line_;  ///< shared with requests that a turn holds back or that are under way
  std::mutex shutdown_mutex_;
};

}  // namespace morvik::runtime
