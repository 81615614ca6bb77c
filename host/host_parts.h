// All that a host consists of, in the order in which it is made; it goes in the reverse order.
#pragma once

#include <atomic>
#include <memory>
#include <optional>

#include "host/checked_options.h"
#include "host/crash/crash_hook.h"
#include "host/crash/report_file.h"
#include "host/crypto/openssl_cipher.h"
#include "host/crypto/system_random.h"
#include "host/crypto/zlib_compressor.h"
#include "host/host.h"
#include "host/json/simdjson_codec.h"
#include "host/loop/background_tasks.h"
#include "host/loop/background_thread.h"
#include "host/loop/main_loop.h"
#include "host/loop/notification_center.h"
#include "host/loop/settle_watch.h"
#include "host/loop/system_clock.h"
#include "host/net/curl_transport.h"
#include "host/net/turn_gate.h"
#include "host/siblings/MorvikADGetPUID.h"
#include "host/siblings/MorvikADUtil.h"
#include "host/siblings/MorvikCore.h"
#include "host/siblings/MorvikCoreServicesLib.h"
#include "host/siblings/app_ad_client.h"
#include "host/siblings/app_bundle.h"
#include "host/siblings/app_modules.h"
#include "host/siblings/common_parameters.h"
#include "host/siblings/sdk_config.h"
#include "host/siblings/size_trigger.h"
#include "host/siblings/system_threads.h"
#include "host/store/sqlite_store.h"
#include "kit/kit.h"

namespace morvik {
class MorvikCoreLib;
}

namespace morvik::host {

/// Filled by makeHost() only; everything is there once it has returned a host.
struct HostParts {
  HostParts(CheckedOptions checked, std::unique_ptr<kit::LogSink> sink);
  ~HostParts();
  HostParts(const HostParts&) = delete;
  HostParts& operator=(const HostParts&) = delete;

  Pending pending() const;
  /// Of the component under which the kit logs; the nearest level that there is. Any thread.
  void setLogLevel(int level);

  const CheckedOptions options;
  const std::unique_ptr<kit::LogSink> log_sink;
  kit::SharedState shared_state;
  const services::Logger logger;

  SystemClock clock;
  SystemCalendar calendar;
  SystemRandom random;
  const OpensslCipher cipher;
  const ZlibCompressor compressor;
  const SimdjsonCodec json;

  SqliteStore store;
  kit::HouseLock house_lock;
  const services::MorvikGVUserDefaults properties;

  std::atomic<size_t> posted_calls{0};  ///< calls from other threads that wait in the main loop
  TurnGate gate;
  MainLoop main_loop;
  BackgroundThread background;
  BackgroundTasks background_tasks;
  NotificationCenter notifications;
  CurlTransport transport;
  SettleWatch settle_watch;

  MorvikADUtil util;
  const MorvikADGetPUID puid;
  const CommonParameters common;
  SizeTrigger size_trigger;
  MorvikCoreServicesLib services;
  MorvikCore facade;
  const MorvikCoreUpdateLog update_log;
  const Device device;
  const AppBundle bundle;
  const SystemThreads threads;
  ReportFile report_file;
  AppAdClient ad_client;
  const AppModules modules;

  const kit::Kit kit;
  std::shared_ptr<MorvikCoreLib> core;
  std::unique_ptr<CrashHook> crash_hook;  ///< null: crashes are not reported
};

/// Keeps a URL that opened the app before the kit was ready; the next session start handles it. The last one counts: a
/// URL that waits there gives way, with a line in the log. Any thread.
void keepOpenedUrl(HostParts& parts, const kit::Url& url);

}  // namespace morvik::host
