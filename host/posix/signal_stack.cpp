#include "host/posix/signal_stack.h"

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

namespace morvik::host {

SignalStack::SignalStack() : guard_bytes_(static_cast<size_t>(::sysconf(_SC_PAGESIZE))) {
  stack_t has{};
  if (::sigaltstack(nullptr, &has) != 0 || (has.ss_flags & SS_DISABLE) == 0)
    return;
  const size_t bytes = guard_bytes_ + kSignalStackBytes;
  void* const memory = ::mmap(nullptr, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
  if (memory == MAP_FAILED)
    return;
  char* const begin = static_cast<char*>(memory);
  stack_t own{};
  own.ss_sp = begin + guard_bytes_;
  own.ss_size = kSignalStackBytes;
  if (::mprotect(own.ss_sp, own.ss_size, PROT_READ | PROT_WRITE) != 0 || ::sigaltstack(&own, nullptr) != 0)
    ::munmap(memory, bytes);
  else
    memory_ = begin;
}

SignalStack::~SignalStack() {
  stack_t has{};
  if (memory_ == nullptr || ::sigaltstack(nullptr, &has) != 0 || has.ss_sp != memory_ + guard_bytes_)
    return;
  stack_t none{};
  none.ss_flags = SS_DISABLE;
  if (::sigaltstack(&none, nullptr) == 0)
    ::munmap(memory_, guard_bytes_ + kSignalStackBytes);
}

}  // namespace morvik::host
