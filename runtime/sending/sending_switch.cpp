#include "runtime/sending/sending_switch.h"

#include <utility>

#include "runtime/siblings/MorvikCoreServicesLib.h"

namespace morvik::runtime {

/// One of the resuming turns, until its end.
class SendingSwitch::Resuming {
 public:
  explicit Resuming(SendingSwitch& of) : of_(of) {}
  Resuming(const Resuming&) = delete;
  Resuming& operator=(const Resuming&) = delete;
  ~Resuming() { --of_.resumes_; }

 private:
  SendingSwitch& of_;
};

SendingSwitch::SendingSwitch(Parts parts, bool is_on) : parts_(parts), is_on_(is_on) {
  parts_.services.setIsSendingOff(!is_on);
  parts_.transport.setHeld(!is_on);
}

void SendingSwitch::setAlsoHeld(std::function<void(bool held)> hold) {
  hold_ = std::move(hold);
  if (!isOn())
    hold_(true);
}

bool SendingSwitch::isOn() const {
  const std::scoped_lock hold(mutex_);
  return is_on_;
}

void SendingSwitch::set(bool is_on) {
  {
    const std::scoped_lock hold(mutex_);
    if (is_on_ == is_on)
      return;
    is_on_ = is_on;
    if (!is_on) {
      was_switched_off_ = true;
      parts_.transport.setHeld(true);
      hold_(true);
    }
    // One is enough, however often an app switches before it runs.
    if (!parts_.main_loop.isMainThread() && std::exchange(is_posted_, true))
      return;
  }
  parts_.main_loop.runOnMain([this] { apply(); });
}

void SendingSwitch::apply() {
  bool is_on = false;
  {
    const std::scoped_lock hold(mutex_);
    is_posted_ = false;
    is_on = is_on_;
    if (std::exchange(was_switched_off_, false))
      parts_.services.setIsSendingOff(true);
  }
  if (is_on && parts_.services.isSendingOff())
    resume();
}

void SendingSwitch::resume() {
  parts_.services.setIsSendingOff(false);
  {
    const std::scoped_lock hold(mutex_);
    if (is_on_)
      parts_.transport.setHeld(false);
  }
  parts_.main_loop.async([this] {
    {
      const Resuming resuming(*this);
      resumeNow();
    }
    if (!isResuming() && not_resuming_)
      not_resuming_();
  });
  ++resumes_;
}

void SendingSwitch::resumeNow() {
  if (parts_.services.isSendingOff())
    return;
  if (resumed_)
    resumed_();
  const std::scoped_lock hold(mutex_);
  if (is_on_)
    hold_(false);
}

}  // namespace morvik::runtime
