// A shop that tells Morvik what its customers do.
#pragma once

#include <morvik/morvik.h>

#include <memory>
#include <string>
#include <vector>

class Shop {
 public:
  explicit Shop(morvik::MorvikCore& kit);

  void look(const std::string& article);
  void put(const std::string& article);
  /// False if the basket is empty; nothing is reported then.
  bool buy();
  /// Where the shop opens: the article of the link that a new customer followed; "" for the front page.
  const std::string& landing() const { return landing_; }

 private:
  morvik::MorvikCore& kit_;
  std::shared_ptr<morvik::MorvikCoreDelegate> delegate_;
  std::vector<std::string> basket_;
  std::string landing_;
};
