#include "shop.h"

Shop::Shop(morvik::MorvikCore& kit) : kit_(kit), delegate_(std::make_shared<morvik::MorvikCoreDelegate>()) {
  delegate_->didReceiveDeeplink = [this](const std::string& link) { landing_ = link; };
  kit_.setDelegate(delegate_);
}

void Shop::look(const std::string& article) {
  kit_.addActivity("shop", "look", article);
}

void Shop::put(const std::string& article) {
  basket_.push_back(article);
}

bool Shop::buy() {
  if (basket_.empty())
    return false;
  for (const std::string& article : basket_)
    kit_.addActivity("shop", "purchase", article);
  basket_.clear();
  return true;
}
