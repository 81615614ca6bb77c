#include "runtime/observe/status_of.h"

#include <optional>

#include "MorvikCoreLib/MorvikCoreLib.h"
#include "runtime/instance_parts.h"

namespace morvik::runtime {
namespace {

/// Read in one step: never half of one record and half of the next.
std::optional<Referral> referralIn(const services::MorvikGVUserDefaults& store) {
  return store.inOneStep([&store]() -> std::optional<Referral> {
    const int64_t key = store.fendoUserInfo_referralKey();
    if (key == -1)
      return std::nullopt;
    return Referral{.conversion_key = key,
                    .sub_conversion_key = store.fendoUserInfo_subReferralKey(),
                    .campaign_data = store.fendoUserInfo_referral_data().value_or(""),
                    .install_datetime = store.fendoUserInfo_install_datetime().value_or("")};
  });
}

}  // namespace

Status statusOf(InstanceParts& parts) {
  Status status = statusPastTheStore(parts);
  status.referral = referralIn(parts.properties);
  status.is_attributed = status.referral.has_value();
  for (const Ledger::Account& account : parts.ledger.read().accounts)
    status.waiting.push_back({account.kind, account.stored});
  return status;
}

Status statusPastTheStore(InstanceParts& parts) {
  Status status;
  status.is_running = true;
  status.is_session_open = parts.core->isStartSessionCalled();
  status.last_success = parts.observations.lastSuccess();
  status.last_failure = parts.observations.lastFailure();
  status.is_sending_enabled = parts.sending.isOn();
  status.is_forgotten = parts.core->isGdprForgetMe();
  status.wish_file = parts.plain_store->fileState();
  return status;
}

}  // namespace morvik::runtime
