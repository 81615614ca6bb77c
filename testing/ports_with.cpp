#include "testing/ports_with.h"

namespace morvik::testing {
namespace {

template <class Part>
Part& either(Part* own, Part& of_kit) {
  return own != nullptr ? *own : of_kit;
}

}  // namespace

kit::Ports portsWith(const kit::Ports& ports, const OwnParts& own) {
  return {.clock = ports.clock,
          .calendar = ports.calendar,
          .main_queue = ports.main_queue,
          .background_queue = ports.background_queue,
          .background_tasks = either(own.background_tasks, ports.background_tasks),
          .notifications = ports.notifications,
          .key_value_store = either(own.key_value_store, ports.key_value_store),
          .list_lock = either(own.list_lock, ports.list_lock),
          .transport = either(own.transport, ports.transport),
          .json = ports.json,
          .cipher = ports.cipher,
          .compressor = ports.compressor,
          .random = ports.random,
          .device = ports.device,
          .bundle = ports.bundle,
          .threads = ports.threads,
          .report_shelf = ports.report_shelf,
          .ad_client = ports.ad_client,
          .modules = ports.modules,
          .log_sink = ports.log_sink,
          .endpoints = ports.endpoints,
          .shared_state = ports.shared_state,
          .services_lib = either(own.services, ports.services_lib),
          .util = ports.util,
          .puid = ports.puid,
          .facade = ports.facade,
          .update_log = ports.update_log,
          .make_config = ports.make_config,
          .batch_limit = own.batch_limit.value_or(ports.batch_limit),
          .ledger = ports.ledger};
}

}  // namespace morvik::testing
