// The facade as the core object sees it: holds the app's delegate.
#pragma once

#include <memory>

#include "kit/facade.h"
#include "morvik/morvik.h"
#include "services/locked.h"

namespace morvik::runtime {

/// Any thread.
class Facade final : public kit::Facade {
 public:
  /// Held weakly.
  void setDelegate(std::weak_ptr<const MorvikCoreDelegate> delegate) { delegate_.set(std::move(delegate)); }
  /// The app's own; null if there is none or it is gone.
  std::shared_ptr<const MorvikCoreDelegate> delegateOfApp() const { return delegate_.get().lock(); }
  /// Slots that are empty in the app's delegate are empty here. Keeps the app's delegate alive while it is held.
  std::shared_ptr<const kit::FacadeDelegate> delegate() const override;

 private:
  services::Locked<std::weak_ptr<const MorvikCoreDelegate>> delegate_;
};

}  // namespace morvik::runtime
