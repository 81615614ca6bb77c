#include "host/posix/process_word.h"

#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <new>

namespace morvik::host {
namespace {

std::atomic<uint64_t> in_ordinary_memory{0};

/// A word that the kernel sets to 0 in every child, even one forked without the C library.
std::atomic<uint64_t>* wordThatForksForget() {
  const auto page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
  void* const memory = ::mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED)
    return &in_ordinary_memory;
  if (::madvise(memory, page, MADV_WIPEONFORK) != 0) {
    ::munmap(memory, page);
    return &in_ordinary_memory;
  }
  return new (memory) std::atomic<uint64_t>(0);
}

}  // namespace

std::atomic<uint64_t>& processWord() {
  static std::atomic<uint64_t>* const word = [] {
    // For systems that cannot wipe a page on fork.
    ::pthread_atfork(nullptr, nullptr, [] { in_ordinary_memory = 0; });
    return wordThatForksForget();
  }();
  return *word;
}

}  // namespace morvik::host
