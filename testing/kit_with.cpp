#include "testing/kit_with.h"

namespace morvik::testing {
namespace {

template <class Part>
Part& either(Part* own, Part& of_kit) {
  return own != nullptr ? *own : of_kit;
}

}  // namespace

kit::Kit kitWith(const kit::Kit& kit, const OwnParts& own) {
  return {.clock = kit.clock,
          .calendar = kit.calendar,
          .main_queue = kit.main_queue,
          .background_queue = kit.background_queue,
          .background_tasks = either(own.background_tasks, kit.background_tasks),
          .notifications = kit.notifications,
          .key_value_store = either(own.key_value_store, kit.key_value_store),
          .house_lock = either(own.house_lock, kit.house_lock),
          .transport = either(own.transport, kit.transport),
          .json = kit.json,
          .cipher = kit.cipher,
          .compressor = kit.compressor,
          .random = kit.random,
          .device = kit.device,
          .bundle = kit.bundle,
          .threads = kit.threads,
          .report_shelf = kit.report_shelf,
          .ad_client = kit.ad_client,
          .modules = kit.modules,
          .log_sink = kit.log_sink,
          .endpoints = kit.endpoints,
          .shared_state = kit.shared_state,
          .services = either(own.services, kit.services),
          .util = kit.util,
          .puid = kit.puid,
          .facade = kit.facade,
          .update_log = kit.update_log,
          .make_config = kit.make_config,
          .batch_limit = own.batch_limit.value_or(kit.batch_limit)};
}

}  // namespace morvik::testing
