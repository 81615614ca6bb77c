#include "apps/device/scenario/session_watch.h"

#include <string>
#include <utility>

#include "services/endpoints.h"

namespace morvik_device::scenario {
namespace {

namespace kit = morvik::kit;
namespace services = morvik::services;

int64_t launchesIn(const kit::KeyValueStore& store) {
  static const std::string key =
      std::string(services::kMorvikNSUserDefaultsDomainName) + "." + services::kAppLaunchCountSaveKey;
  return store.get(key).integer();
}

kit::Value sessionEndIn(const kit::KeyValueStore& store) {
  return store.get("MorvikCoreUserInfo_endSessoinDate");
}

}  // namespace

SessionWatch::SessionWatch(const kit::KeyValueStore& store, std::function<void(Event)> tell)
    : store_(store), tell_(std::move(tell)), launches_(launchesIn(store)), session_end_(sessionEndIn(store)) {}

void SessionWatch::look(kit::Date now) {
  const int64_t launches = launchesIn(store_);
  if (launches > launches_)
    tell_(hasStartOf(now) ? Event::kBegun : Event::kKept);
  launches_ = launches;
  kit::Value session_end = sessionEndIn(store_);
  if (!(session_end == session_end_) && session_end.isDate())
    tell_(Event::kEnded);
  session_end_ = std::move(session_end);
}

// A session that is kept counts as a launch and records no "start". Nothing but the retention mark follows a "start" in
// its turn, so it is among the last two.
bool SessionWatch::hasStartOf(kit::Date now) const {
  constexpr size_t kLast = 2;
  const kit::Value list = store_.get("fendoActivityInfos");
  const auto records = list.array();
  for (size_t i = records.size() > kLast ? records.size() - kLast : 0; i < records.size(); ++i) {
    const kit::Value& record = records[i];
    if (record["activityGroupName"].string() == services::kFendoActivityGroupSession &&
        record["activityName"].string() == "start" && record["activityCreatedAt"].date() == now)
      return true;
  }
  return false;
}

}  // namespace morvik_device::scenario
