#include "runtime/machine/machine.h"

#include "runtime/sending/exchange_queue.h"

namespace morvik::runtime {

std::atomic<uint64_t>& Machine::processWord() {
  static std::atomic<uint64_t> word{0};  // trivially destructible
  return word;
}

std::unique_ptr<MachineTransport> Machine::makeTransport(TransportParts parts) {
  auto network = makeNetwork(parts.ca_file);
  return std::make_unique<ExchangeQueue>(std::move(network), std::move(parts));
}

}  // namespace morvik::runtime
