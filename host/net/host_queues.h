// Who may begin now, and who waits for a connection.
#pragma once

#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

namespace morvik::host {

/// Exchanges with one host at the same time, and so connections to it.
inline constexpr size_t kMaxConnectionsPerHost = 6;

/// For each host, the exchanges that run are counted and the others wait in order. The wait is not bounded in number;
/// it costs the waiting request nothing of its time-out. One thread.
template <class Item>
class HostQueues {
 public:
  /// Takes in a new one; it comes out of takeReady() when its host has a place for it.
  void add(const std::string& host, Item item) {
    Host& entry = hosts_[host];
    if (entry.running < kMaxConnectionsPerHost) {
      ++entry.running;
      ready_.push_back(std::move(item));
    } else {
      entry.waiting.push_back(std::move(item));
    }
  }
  /// One that had come out of takeReady() is over: its place goes to the one that has waited longest.
  void ended(const std::string& host) {
    const auto found = hosts_.find(host);
    Host& entry = found->second;
    if (!entry.waiting.empty()) {
      ready_.push_back(std::move(entry.waiting.front()));
      entry.waiting.pop_front();
    } else if (--entry.running == 0) {
      hosts_.erase(found);
    }
  }
  /// The next one that may begin; nothing when there is none.
  std::optional<Item> takeReady() {
    if (ready_.empty())
      return std::nullopt;
    std::optional<Item> item(std::move(ready_.front()));
    ready_.pop_front();
    return item;
  }
  void clear() {
    hosts_.clear();
    ready_.clear();
  }

 private:
  struct Host {
    size_t running = 0;
    std::deque<Item> waiting;
  };
  std::unordered_map<std::string, Host> hosts_;
  std::deque<Item> ready_;
};

}  // namespace morvik::host
