#include "apps/service/http/hang_up_watch.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

#include "apps/service/base/refusal.h"

namespace morvik_service {
namespace {

constexpr std::uint64_t kEndNumber = 0;
constexpr int kEventsAtOnce = 16;

}  // namespace

HangUpWatch::Watched::Watched(HangUpWatch& watch, int socket, const std::stop_source& when_gone)
    : watch_(watch), socket_(socket) {
  {
    const std::lock_guard lock(watch_.mutex_);
    number_ = watch_.next_number_++;
    watch_.watched_.emplace(number_, when_gone);
  }
  epoll_event event{};
  event.events = EPOLLRDHUP | EPOLLONESHOT;
  event.data.u64 = number_;
  // Without it the stream ends a little later, with the next keep-alive that cannot be sent.
  ::epoll_ctl(watch_.events_, EPOLL_CTL_ADD, socket_, &event);
}

HangUpWatch::Watched::~Watched() {
  ::epoll_ctl(watch_.events_, EPOLL_CTL_DEL, socket_, nullptr);
  const std::lock_guard lock(watch_.mutex_);
  watch_.watched_.erase(number_);
}

HangUpWatch::HangUpWatch() : events_(::epoll_create1(EPOLL_CLOEXEC)), end_(::eventfd(0, EFD_CLOEXEC)) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = kEndNumber;
  if (events_ < 0 || end_ < 0 || ::epoll_ctl(events_, EPOLL_CTL_ADD, end_, &event) != 0)
    throw SetupError("cannot watch connections: " + std::system_category().message(errno));
  thread_ = std::thread([this] { run(); });
}

HangUpWatch::~HangUpWatch() {
  ::eventfd_write(end_, 1);
  thread_.join();
  ::close(end_);
  ::close(events_);
}

void HangUpWatch::run() {
  std::array<epoll_event, kEventsAtOnce> events{};
  for (;;) {
    const int count = ::epoll_wait(events_, events.data(), kEventsAtOnce, -1);
    for (int i = 0; i < count; ++i) {
      const std::uint64_t number = events[static_cast<std::size_t>(i)].data.u64;
      if (number == kEndNumber)
        return;
      tell(number);
    }
  }
}

// Stop callbacks run outside the lock: they may end their watch.
void HangUpWatch::tell(std::uint64_t number) {
  std::stop_source gone(std::nostopstate);
  {
    const std::lock_guard lock(mutex_);
    const auto found = watched_.find(number);
    if (found != watched_.end())
      gone = found->second;
  }
  gone.request_stop();
}

}  // namespace morvik_service
