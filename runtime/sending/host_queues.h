// Which exchange may begin now, and which waits for a connection to its host.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <iterator>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "runtime/machine/machine.h"

namespace morvik::runtime {

/// Counts the running exchanges of each host and queues the others in order. The queues are not bounded; waiting does
/// not use up a request's time-out. One thread.
template <class Item>
class HostQueues {
 public:
  /// Adds one; takeReady() returns it when its host has a free connection. `passes_hold`: ahead of all that do not, and
  /// also while those are held.
  void add(const std::string& host, Item item, bool passes_hold = false) {
    Host& entry = hosts_[host];
    (passes_hold ? entry.passing : entry.ordinary).push_back({next_++, std::move(item)});
  }
  /// One that takeReady() returned is over: its connection goes to the one that has waited longest.
  void ended(const std::string& host) {
    const auto found = hosts_.find(host);
    --found->second.running;
    if (found->second.isIdle())
      hosts_.erase(found);
  }
  /// The next that may begin, longest wait first; nothing if there is none. While held, only those that pass a hold.
  std::optional<Item> takeReady(bool held = false) {
    std::optional<Item> passing = takeLongest(&Host::passing);
    return passing || held ? std::move(passing) : takeLongest(&Host::ordinary);
  }
  /// All waiting ones for which this is true, in order, except those that pass a hold.
  template <class Predicate>
  std::vector<Item> takeWaitingIf(Predicate predicate) {
    Line taken;
    for (auto& [name, entry] : hosts_) {
      Line& line = entry.ordinary;
      const auto first = std::stable_partition(line.begin(), line.end(),
                                               [&](const Waiting& waiting) { return !predicate(waiting.item); });
      std::move(first, line.end(), std::back_inserter(taken));
      line.erase(first, line.end());
    }
    std::erase_if(hosts_, [](const auto& host) { return host.second.isIdle(); });
    std::sort(taken.begin(), taken.end(), [](const Waiting& a, const Waiting& b) { return a.number < b.number; });
    std::vector<Item> items;
    for (Waiting& each : taken)
      items.push_back(std::move(each.item));
    return items;
  }

 private:
  struct Waiting {
    uint64_t number;  ///< order of arrival
    Item item;
  };
  using Line = std::deque<Waiting>;
  struct Host {
    size_t running = 0;
    Line passing;
    Line ordinary;
    bool isIdle() const { return running == 0 && passing.empty() && ordinary.empty(); }
  };

  std::optional<Item> takeLongest(Line Host::*of_host) {
    Host* host = nullptr;
    for (auto& [name, entry] : hosts_) {
      const Line& line = entry.*of_host;
      if (entry.running >= kMaxConnectionsPerHost || line.empty())
        continue;
      if (host == nullptr || line.front().number < (host->*of_host).front().number)
        host = &entry;
    }
    if (host == nullptr)
      return std::nullopt;
    ++host->running;
    Line& line = host->*of_host;
    std::optional<Item> item(std::move(line.front().item));
    line.pop_front();
    return item;
  }

  std::unordered_map<std::string, Host> hosts_;
  uint64_t next_ = 0;
};

}  // namespace morvik::runtime
