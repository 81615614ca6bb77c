// All that a host consists of, in the order in which it is made; it goes in the reverse order.
#pragma once

#include <atomic>
#include <memory>
#include <optional>

#include "host/call_gate.h"
#include "host/checked_options.h"
#include "host/crash/crash_note.h"
#include "host/handed_over.h"
#include "host/host.h"
#include "host/ledger/ledger_book.h"
#include "host/life/host_life.h"
#include "host/life/start_hold.h"
#include "host/log/app_log_sink.h"
#include "host/log/logged_lines.h"
#include "host/log/posted_lines.h"
#include "host/loop/background_tasks.h"
#include "host/loop/notification_center.h"
#include "host/loop/settle_watch.h"
#include "host/machine/machine.h"
#include "host/machine/turn_gate.h"
#include "host/observe/observations.h"
#include "host/privacy/erasure_hold.h"
#include "host/privacy/wish_rereading.h"
#include "host/privacy/wish_store.h"
#include "host/sending/flushes.h"
#include "host/sending/sending_switch.h"
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
#include "host/store/commit_retry.h"
#include "kit/kit.h"

namespace morvik {
class MorvikCoreLib;
}

namespace morvik::host {

/// Filled by makeHost() only; everything is there once it has returned a host.
struct HostParts {
  /// `machine` makes the parts that stand on it. It is `owned`, or that is null and the machine outlives the parts.
  HostParts(std::shared_ptr<HostLife> of_host, CheckedOptions checked, std::unique_ptr<ClosableLogSink> sink,
            Machine& machine, std::unique_ptr<Machine> owned);
  ~HostParts();
  HostParts(const HostParts&) = delete;
  HostParts& operator=(const HostParts&) = delete;

  Pending pending() const;
  /// Of the component under which the kit logs; the nearest level that there is. Any thread.
  void setLogLevel(int level);

  const std::unique_ptr<Machine> owned_machine;  ///< what the parts refer to goes after them; may be null
  const std::shared_ptr<HostLife> life;          ///< shared with what is the app's: see HostLife::guard()
  const bool has_threads;
  const CheckedOptions options;
  const std::unique_ptr<ClosableLogSink> log_sink;
  kit::SharedState shared_state;
  PostedLines lines;
  const services::Logger logger;
  LoggedLines store_lines;
  LoggedLines report_lines;

  std::unique_ptr<StartLog> eraser_log;
  std::unique_ptr<MachineEraser> eraser;

  const std::unique_ptr<MachineClock> clock;
  const std::unique_ptr<MachineCalendar> calendar;
  const std::unique_ptr<kit::Random> random;
  const std::unique_ptr<MachineThreads> threads;
  const std::unique_ptr<MachineFacts> facts;
  const std::unique_ptr<const kit::Cipher> cipher;
  const std::unique_ptr<const kit::Compressor> compressor;
  const std::unique_ptr<const kit::KeyedHash> keyed_hash;
  const std::unique_ptr<const kit::JsonCodec> json;

  kit::HouseLock house_lock;
  const std::unique_ptr<MachineWishFile> wish_file;  ///< may be null
  const std::unique_ptr<MachineStore> bare_store;
  const std::unique_ptr<WishStore> plain_store;  ///< the same, and the wish to be forgotten is kept twice
  LedgerBook ledger;
  const std::unique_ptr<MachineStore> store;  ///< the plain one, and what passes through it is counted
  const services::MorvikGVUserDefaults properties;

  TurnGate gate;
  const std::unique_ptr<MachineLoop> main_loop;
  const std::unique_ptr<MachineBackground> background;
  BackgroundTasks background_tasks;
  NotificationCenter notifications;
  ErasureHold erasure_hold;
  WishRereading wish_rereading;
  StartHold start_hold;
  const std::unique_ptr<MachineTransport> bare_transport;
  const std::unique_ptr<MachineTransport> plain_transport;  ///< the same, and erasures wait for the disk
  const std::unique_ptr<MachineTransport> transport;        ///< the same, and what leaves is counted
  SettleWatch settle_watch;
  CommitRetry commit_retry;

  MorvikADUtil util;
  MorvikADGetPUID puid;
  CommonParameters common;
  SizeTrigger size_trigger;
  MorvikCore facade;
  Observations observations;
  MorvikCoreServicesLib services;
  SendingSwitch sending;
  Flushes flushes;
  const MorvikCoreUpdateLog update_log;
  const Device device;
  const AppBundle bundle;
  const std::unique_ptr<kit::ReportShelf> report_shelf;
  AppAdClient ad_client;
  const AppModules modules;
  HandedOver handed_over;
  CallGate calls;  ///< those that record
  /// The app said so; the main queue may not have heard of it yet.
  std::atomic<bool> has_entered_background{false};

  const kit::Kit kit;
  std::shared_ptr<MorvikCoreLib> core;
  std::unique_ptr<MachineCrashHook> crash_hook;  ///< null: crashes are not reported
  std::shared_ptr<CrashNote> crash_note;         ///< null as well
};

/// Keeps a URL that opened the app before the kit was ready; the next session start handles it. The last one counts: a
/// URL that waits there gives way, with a line in the log. Any thread.
void keepOpenedUrl(HostParts& parts, const kit::Url& url);

}  // namespace morvik::host
