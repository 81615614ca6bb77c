#include "runtime/life/instance_life.h"

#include <string_view>

#include "morvik/start_options.h"
#include "runtime/life/call_app.h"

namespace morvik::runtime {
namespace {

using Life = std::shared_ptr<const InstanceLife>;

template <class... Arguments>
void guardSlot(const Life& life, std::function<void(Arguments...)>& slot) {
  if (!slot)
    return;
  slot = [life, slot = std::move(slot)](Arguments... arguments) {
    if (life->mayCallApp())
      callApp(slot, std::forward<Arguments>(arguments)...);
  };
}

void guardModule(const Life& life, Module& module) {
  guardSlot(life, module.saveCommerceEventAndSend);
  guardSlot(life, module.setRemotePushEnable);
  guardSlot(life, module.resetRetainedConversionCache);
  guardSlot(life, module.saveRetainedConversionKey);
  guardSlot(life, module.didGetSchedule);
  if (!module.getSDKVersion)
    return;
  module.getSDKVersion = [life, slot = std::move(module.getSDKVersion)] {
    return life->mayCallApp() ? callApp(slot) : std::nullopt;
  };
}

}  // namespace

thread_local const InstanceLife* InstanceLife::log_sink_of_thread_ = nullptr;
thread_local const InstanceLife* InstanceLife::done_of_thread_ = nullptr;

void InstanceLife::beginToEnd() {
  Stage running = Stage::kRunning;
  stage_.compare_exchange_strong(running, Stage::kEnding);
}

InstanceLife::Admission InstanceLife::post(size_t limit) {
  if (!isRunning())
    return Admission::kNotRunning;
  const std::scoped_lock hold(mutex_);
  if (posted_closed_)
    return Admission::kNotRunning;
  if (posted_ >= limit)
    return Admission::kTooMany;
  ++posted_;
  return Admission::kAdmitted;
}

bool InstanceLife::beginPosted() {
  const std::scoped_lock hold(mutex_);
  if (posted_closed_)
    return false;
  --posted_;
  return true;
}

size_t InstanceLife::closePosted() {
  const std::scoped_lock hold(mutex_);
  posted_closed_ = true;
  return std::exchange(posted_, 0);
}

void InstanceLife::guard(const Life& life, StartOptions& options) {
  if (options.log_sink) {
    options.log_sink = [life, sink = std::move(options.log_sink)](std::string_view line) {
      if (!life->mayCallApp())
        return;
      const Within within(log_sink_of_thread_, *life);
      callApp(sink, line);
    };
  }
  guardSlot(life, options.ad_client.requestAttributionDetails);
  guardSlot(life, options.ad_client.lookupAdConversionDetails);
  guardSlot(life, options.ad_client.determineAppInstallationAttribution);
  for (auto& [name, module] : options.modules)
    guardModule(life, module);
}

}  // namespace morvik::runtime
