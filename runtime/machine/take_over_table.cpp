#include "runtime/machine/take_over_table.h"

#include "runtime/handed_over.h"
#include "runtime/ledger/exchange_trail.h"
#include "runtime/ledger/ledger_accounts.h"
#include "runtime/siblings/kept_identifier.h"
#include "services/MorvikGVUserDefaults.h"
#include "services/conversion_cache.h"
#include "services/endpoints.h"

namespace morvik::runtime {

TakeOverTable takeOverTable() {
  namespace property = services::property;
  const std::string launches =
      std::string(services::kMorvikNSUserDefaultsDomainName) + "." + services::kAppLaunchCountSaveKey;
  return {
      .rows =
          {
              // The referral record, with the user number by which the service knows the install.
              {property::fendoUserInfo_fendoUserNo, TakeOver::kRecord},
              {property::fendoUserInfo_shardNum, TakeOver::kRecord},
              {property::fendoUserInfo_referralKey, TakeOver::kRecord},
              {property::fendoUserInfo_subReferralKey, TakeOver::kRecord},
              {property::fendoUserInfo_refUSN, TakeOver::kRecord},
              {property::fendoUserInfo_channelType, TakeOver::kRecord},
              {property::fendoUserInfo_shardNo, TakeOver::kRecord},
              {property::fendoUserInfo_updated_at, TakeOver::kRecord},
              {property::fendoUserInfo_referral_data, TakeOver::kRecord},
              {property::fendoUserInfo_reengagement_conversion_key, TakeOver::kRecord},
              {property::fendoUserInfo_reengagement_data, TakeOver::kRecord},
              {property::fendoUserInfo_reengagement_datetime, TakeOver::kRecord},
              {property::fendoUserInfo_last_referral_key, TakeOver::kRecord},
              {property::fendoUserInfo_last_referral_data, TakeOver::kRecord},
              {property::fendoUserInfo_last_referral_datetime, TakeOver::kRecord},
              {property::fendoUserInfo_install_datetime, TakeOver::kRecord},
              {property::fendoUserInfo_install_mdatetime, TakeOver::kRecord},
              // The state of the device now.
              {property::fendoUserInfo_isApplicationPortrait, TakeOver::kProcess},
              {property::fendoUserInfo_last_app_launched_date, TakeOver::kLater},
              {property::MorvikCoreUserInfo_endSessoinDate, TakeOver::kLater},
              {property::commercePremiumPostBack, TakeOver::kProcess},
              // What was recorded.
              {property::fendoActivityInfos, TakeOver::kJoin},
              {property::fendoImpressionInfos, TakeOver::kJoin},
              {property::commerceConversionInfos, TakeOver::kJoin},
              {property::commerceExpansionInfos, TakeOver::kJoin},
              {property::reEngagementInfos, TakeOver::kJoin},
              {property::reEngagementConversionFailedCnt, TakeOver::kJoin},
              {property::MorvikCoreUserInfo_Crash, TakeOver::kJoin},
              {kHandedOverKey, TakeOver::kJoin},
              // The ids noted by an earlier process's batch mean nothing to the answer that this process waits for:
              // joined, it would delete records that it never carried.
              {property::fendoActivityInfosSentEventKeys, TakeOver::kProcessAlone},
              {services::kConversionTimesKey, TakeOver::kJoin},
              {property::fendoConversionInfoForCaches, TakeOver::kUnite},
              // From the first session that had one.
              {property::MorvikCoreUserInfo_IDFA, TakeOver::kFile},
              // What the user wants: this process was told last, or the file next to the store said so.
              {property::MorvikCoreUserInfo_isGDPRForgetMe, TakeOver::kProcess},
              // What the service accepted from this process named another device, so the wish is still to be sent.
              {property::MorvikCoreUserInfo_isGDPRForgetMeServerSynced, TakeOver::kConfirmed,
               property::MorvikCoreUserInfo_isGDPRForgetMe},
              {property::fendoUserDemoInfo_age, TakeOver::kProcess},
              {property::fendoUserDemoInfo_gender, TakeOver::kProcess},
              {property::fendoUserDemoInfo_userId, TakeOver::kProcess},
              {property::fendoUserDemoInfoForComplete_age, TakeOver::kProcess},
              {property::fendoUserDemoInfoForComplete_gender, TakeOver::kProcess},
              {property::fendoUserDemoInfoForComplete_userId, TakeOver::kProcess},
              // The plain entries.
              {launches, TakeOver::kAdd},
              {services::kPassOpenUrlKey, TakeOver::kProcess},
              // The kit's own: which device this is, and the account, to which LedgerBook::storeRecovered() adds what
              // was counted meanwhile.
              {std::string(kDeviceIdKey), TakeOver::kFile},
              {std::string(kInstallIdKey), TakeOver::kFile},
              {std::string(kAdvertisingIdKey), TakeOver::kFile},
              {std::string(kLedgerKey), TakeOver::kFile},
              {std::string(kDemographicSetsKey), TakeOver::kFile},
              {std::string(kTrailKey), TakeOver::kJoin},
          },
      .record_key = property::fendoUserInfo_referralKey,
  };
}

}  // namespace morvik::runtime
