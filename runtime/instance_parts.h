// The parts of an instance, in the order in which they are made. They are destroyed in reverse order.
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

/// Filled by makeInstance() only; complete once it has returned an instance.
struct InstanceParts {
  /// `machine` makes the parts that depend on it. Either it is `owned`, or that is null and it outlives the parts.
  InstanceParts(std::shared_ptr<InstanceLife> instance_life, CheckedOptions checked,
                std::unique_ptr<ClosableLogSink> sink, Machine& machine, std::unique_ptr<Machine> owned);
  ~InstanceParts();
  InstanceParts(const InstanceParts&) = delete;
  InstanceParts& operator=(const InstanceParts&) = delete;

  Pending pending() const;
  /// For the kit's log component; the nearest existing level. Any thread.
  void setLogLevel(int level);

  const std::unique_ptr<Machine> owned_machine;  ///< parts refer to it, so it goes last; may be null
  const std::shared_ptr<InstanceLife> life;      ///< shared with the app's functions: see InstanceLife::guard()
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
  const std::unique_ptr<WishStore> plain_store;  ///< with the wish to be forgotten also in its file
  LedgerBook ledger;
  const std::unique_ptr<MachineStore> store;  ///< the plain store, with the ledger counting
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
  const std::unique_ptr<MachineTransport> transport;  ///< erasures wait for the disk
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
  CallGate calls;  ///< calls that record
  /// The app said so; the main queue may not know yet.
  std::atomic<bool> has_entered_background{false};

  const kit::Ports ports;
  std::shared_ptr<MorvikCoreLib> core;
  std::unique_ptr<MachineCrashHook> crash_hook;  ///< null: crashes are not reported
  std::shared_ptr<CrashNote> crash_note;         ///< then null too
};

/// Stores a URL that opened the app before the kit was ready, for the next session start. Only one is stored: a newer
/// one replaces it, with a log line. Any thread.
void keepOpenedUrl(InstanceParts& parts, const kit::Url& url);

}  // namespace morvik::runtime
