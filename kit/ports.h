// Everything the core object needs from outside, in one place. A composition root (the runtime's, or a test's) fills
// it.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "kit/MorvikADGetPUID.h"
#include "kit/MorvikADUtil.h"
#include "kit/MorvikCoreServicesLib.h"
#include "kit/ad_client.h"
#include "kit/background_tasks.h"
#include "kit/batch_limit.h"
#include "kit/bundle.h"
#include "kit/clock.h"
#include "kit/config.h"
#include "kit/crash.h"
#include "kit/crypto.h"
#include "kit/device.h"
#include "kit/endpoints.h"
#include "kit/facade.h"
#include "kit/json_codec.h"
#include "kit/key_value_store.h"
#include "kit/ledger.h"
#include "kit/list_lock.h"
#include "kit/log.h"
#include "kit/modules.h"
#include "kit/notifications.h"
#include "kit/queues.h"
#include "kit/stop_request.h"
#include "kit/threads.h"
#include "kit/transport.h"

namespace morvik::kit {

/// What is process-wide on a phone but belongs to one instance here, so that two in one process do not affect each
/// other.
struct SharedState {
  /// Key of tracking and demographic payloads; set by the core object when it is made.
  std::string kAESSuperKeyForTracking;
  LogLevels log_levels;
  StopRequest stop_request;
};

/// References to ports and siblings. Their owner keeps them alive, at their addresses, as long as any object made on
/// these ports, or any block of one, can run.
struct Ports {
  Clock& clock;
  Calendar& calendar;
  MainQueue& main_queue;
  BackgroundQueue& background_queue;
  BackgroundTasks& background_tasks;
  NotificationCenter& notifications;
  KeyValueStore& key_value_store;
  ListLock& list_lock;
  Transport& transport;
  const JsonCodec& json;
  const Cipher& cipher;
  const Compressor& compressor;
  Random& random;
  const Device& device;
  const Bundle& bundle;
  const Threads& threads;
  ReportShelf& report_shelf;
  AdClient* ad_client;  ///< null: the platform framework is missing and nothing is offered
  const ModuleRegistry& modules;
  LogSink& log_sink;
  const Endpoints& endpoints;
  SharedState& shared_state;

  MorvikCoreServicesLib& services_lib;
  const MorvikADUtil& util;
  const MorvikADGetPUID& puid;
  const Facade& facade;
  const MorvikCoreUpdateLog& update_log;
  /// A new configuration object for each call, as the platform's own code makes it.
  std::function<std::unique_ptr<MorvkSDKConfig>()> make_config;
  BatchLimit batch_limit = {};
  Ledger& ledger = noLedger();
};

}  // namespace morvik::kit
