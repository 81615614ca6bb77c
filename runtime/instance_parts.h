// All that a host consists of, in the order in which it is made; it goes in the reverse order.
#pragma once

#include <atomic>
#include <memory>
#include <optional>

#include "kit/ports.h"
#include "runtime/call_gate.h"
#include "runtime/checked_options.h"
#include "runtime/crash/crash_note.h"
#include "runtime/handed_over.h"
#include "runtime/instance.h"
#include "runtime/ledger/ledger_book.h"
#include "runtime/life/instance_life.h"
#include "runtime/life/start_hold.h"
#include "runtime/log/app_log_sink.h"
#include "runtime/log/logged_lines.h"
#include "runtime/log/posted_lines.h"
#include "runtime/loop/background_tasks.h"
#include "runtime/loop/commit_retry.h"
#include "runtime/loop/notification_center.h"
#include "runtime/loop/settle_watch.h"
#include "runtime/machine/machine.h"
#include "runtime/machine/turn_gate.h"
#include "runtime/observe/observations.h"
#include "runtime/privacy/erasure_hold.h"
#include "runtime/privacy/wish_rereading.h"
#include "runtime/privacy/wish_store.h"
#include "runtime/sending/flushes.h"
#include "runtime/sending/sending_switch.h"
#include "runtime/siblings/MorvikADGetPUID.h"
#include "runtime/siblings/MorvikADUtil.h"
#include "runtime/siblings/MorvikCoreServicesLib.h"
#include "runtime/siblings/app_ad_client.h"
#include "runtime/siblings/app_bundle.h"
#include "runtime/siblings/app_modules.h"
#include "runtime/siblings/common_parameters.h"
#include "runtime/siblings/facade.h"
#include "runtime/siblings/sdk_config.h"
#include "runtime/siblings/size_trigger.h"

namespace morvik {
class MorvikCoreLib;
}

namespace morvik::runtime {

/// Filled by makeInstance() only; everything is there once it has returned a host.
struct InstanceParts {
  /// `machine` makes the parts that stand on it. It is `owned`, or that is null and the machine outlives the parts.
  InstanceParts(std::shared_ptr<InstanceLife> of_host, CheckedOptions checked, std::unique_ptr<ClosableLogSink> sink,
                Machine& machine, std::unique_ptr<Machine> owned);
  ~InstanceParts();
  InstanceParts(const InstanceParts&) = delete;
  InstanceParts& operator=(const InstanceParts&) = delete;

  Pending pending() const;
  /// Of the component under which the kit logs; the nearest level that there is. Any thread.
  void setLogLevel(int level);

  const std::unique_ptr<Machine> owned_machine;  ///< what the parts refer to goes after them; may be null
  const std::shared_ptr<InstanceLife> life;      ///< shared with what is the app's: see InstanceLife::guard()
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

  kit::ListLock list_lock;
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
  Facade facade;
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

  const kit::Ports ports;
  std::shared_ptr<MorvikCoreLib> core;
  std::unique_ptr<MachineCrashHook> crash_hook;  ///< null: crashes are not reported
  std::shared_ptr<CrashNote> crash_note;         ///< null as well
};

/// Keeps a URL that opened the app before the kit was ready; the next session start handles it. The last one counts: a
/// URL that waits there gives way, with a line in the log. Any thread.
void keepOpenedUrl(InstanceParts& parts, const kit::Url& url);

}  // namespace morvik::runtime
