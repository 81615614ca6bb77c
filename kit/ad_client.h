// The platform's advertising client: three ways to ask who brought the install. A system offers some of them, or none.
#pragma once

#include <functional>
#include <optional>

#include "kit/error.h"

namespace morvik::kit {

class AdClient {
 public:
  /// Details (a dictionary, or absent) and an error, if any.
  using AttributionDetailsHandler = std::function<void(const Value& details, const std::optional<Error>& error)>;
  using ConversionDetailsHandler =
      std::function<void(std::optional<Date> app_purchase_date, std::optional<Date> iad_impression_date)>;
  using InstallationAttributionHandler = std::function<void(bool app_installation_was_attributed_to_iad)>;

  virtual ~AdClient() = default;

  // Whether the running system offers the operation of that name. Any thread.
  virtual bool offersAttributionDetails() const = 0;
  virtual bool offersConversionDetails() const = 0;
  virtual bool offersInstallationAttribution() const = 0;

  // Call them only if offered, on the main queue. Each returns at once; its handler runs once, on the main queue.
  virtual void requestAttributionDetailsWithBlock(AttributionDetailsHandler handler) = 0;
  virtual void lookupAdConversionDetails(ConversionDetailsHandler handler) = 0;
  virtual void determineAppInstallationAttributionWithCompletionHandler(InstallationAttributionHandler handler) = 0;
};

}  // namespace morvik::kit
