// Who may begin now, and who waits for a connection.
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

namespace morvik::host {

/// Exchanges with one host at the same time, and so connections to it.
inline constexpr size_t kMaxConnectionsPerHost = 6;

/// For each host, the exchanges that run are counted and the others wait in order. The wait is not bounded in number;
/// it costs the waiting request nothing of its time-out. One thread.
template <class Item>
class HostQueues {
 public:
  /// Takes in a new one; it comes out of takeReady() when its host has a place for it. `passes_hold`: also while others
  /// are held.
  void add(const std::string& host, Item item, bool passes_hold = false) {
    Host& entry = hosts_[host];
    (passes_hold ? entry.passing : entry.ordinary).push_back({next_++, std::move(item)});
  }
  /// One that had come out of takeReady() is over: its place goes to the one that has waited longest.
  void ended(const std::string& host) {
    const auto found = hosts_.find(host);
    --found->second.running;
    if (found->second.isIdle())
      hosts_.erase(found);
  }
  /// The next one that may begin, the one that has waited longest first; nothing when there is none. While held, none
  /// may but those that pass a hold.
  std::optional<Item> takeReady(bool held = false) {
    Host* host = nullptr;
    Line* longest = nullptr;
    for (auto& [name, entry] : hosts_) {
      if (entry.running >= kMaxConnectionsPerHost)
        continue;
      for (Line* line : {&entry.passing, held ? nullptr : &entry.ordinary}) {
        if (line == nullptr || line->empty() || (longest != nullptr && longest->front().number < line->front().number))
          continue;
        host = &entry;
        longest = line;
      }
    }
    if (longest == nullptr)
      return std::nullopt;
    ++host->running;
    std::optional<Item> item(std::move(longest->front().item));
    longest->pop_front();
    return item;
  }
  /// All that wait, in order, but for those that pass a hold.
  std::vector<Item> takeWaiting() {
    Line all;
    for (auto& [name, entry] : hosts_) {
      std::move(entry.ordinary.begin(), entry.ordinary.end(), std::back_inserter(all));
      entry.ordinary.clear();
    }
    std::erase_if(hosts_, [](const auto& host) { return host.second.isIdle(); });
    std::sort(all.begin(), all.end(), [](const Waiting& a, const Waiting& b) { return a.number < b.number; });
    std::vector<Item> items;
    for (Waiting& each : all)
      items.push_back(std::move(each.item));
    return items;
  }
  void clear() { hosts_.clear(); }

 private:
  struct Waiting {
    uint64_t number;  ///< in the order of coming
    Item item;
  };
  using Line = std::deque<Waiting>;
  struct Host {
    size_t running = 0;
    Line passing;
    Line ordinary;
    bool isIdle() const { return running == 0 && passing.empty() && ordinary.empty(); }
  };
  std::unordered_map<std::string, Host> hosts_;
  uint64_t next_ = 0;
};

}  // namespace morvik::host
