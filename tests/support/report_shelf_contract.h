// What every implementation of the shelf of crash reports promises.
//
// A harness is default-constructible and has
//  kit::ReportShelf& shelf();   the running process's shelf
//  void killAndRestart();       that process dies at once; shelf() is then the next one's
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "kit/crash.h"

namespace morvik::test {

inline kit::Value reportOf(const std::string& reason) {
  return kit::Dictionary{{"exception_reason", reason},
                         {"device_information", kit::Dictionary{{"app_in_focus", true}, {"free", int64_t{1} << 40}}}};
}

template <class Harness>
class ReportShelfContract : public ::testing::Test {
 protected:
  kit::ReportShelf& shelf() { return harness_.shelf(); }
  std::vector<std::string> reasons() {
    std::vector<std::string> found;
    for (const kit::Value& report : shelf().reports())
      found.emplace_back(report["exception_reason"].string());
    return found;
  }
  Harness harness_;
};

TYPED_TEST_SUITE_P(ReportShelfContract);

TYPED_TEST_P(ReportShelfContract, IsEmptyAtFirst) {
  EXPECT_TRUE(this->shelf().reports().empty());
  this->shelf().clear();
  EXPECT_TRUE(this->shelf().reports().empty());
}

TYPED_TEST_P(ReportShelfContract, KeepsReportsInTheirOrderBeyondTheProcess) {
  EXPECT_FALSE(this->shelf().append(reportOf("first")).has_value());
  EXPECT_FALSE(this->shelf().append(reportOf("second\nline \"quoted\"")).has_value());
  EXPECT_FALSE(this->shelf().append(reportOf("first")).has_value());
  this->harness_.killAndRestart();
  const kit::Array reports = this->shelf().reports();
  ASSERT_EQ(reports.size(), 3u);
  EXPECT_EQ(reports[0], reportOf("first"));
  EXPECT_EQ(reports[1], reportOf("second\nline \"quoted\""));
  EXPECT_EQ(reports[2], reportOf("first"));
}

TYPED_TEST_P(ReportShelfContract, KeepsThemUntilItIsCleared) {
  EXPECT_FALSE(this->shelf().append(reportOf("kept")).has_value());
  EXPECT_EQ(this->reasons(), std::vector<std::string>{"kept"});
  this->harness_.killAndRestart();
  EXPECT_EQ(this->reasons(), std::vector<std::string>{"kept"});
  this->shelf().clear();
  EXPECT_TRUE(this->reasons().empty());
  EXPECT_FALSE(this->shelf().append(reportOf("next")).has_value());
  this->harness_.killAndRestart();
  EXPECT_EQ(this->reasons(), std::vector<std::string>{"next"});
}

TYPED_TEST_P(ReportShelfContract, TakesReportsOfManyThreads) {
  constexpr int kThreads = 4;
  constexpr int kEach = 25;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([this] {
      for (int j = 0; j < kEach; ++j)
        EXPECT_FALSE(this->shelf().append(reportOf(std::string(5'000, 'x'))).has_value());
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(this->reasons(), std::vector<std::string>(size_t{kThreads} * kEach, std::string(5'000, 'x')));
}

REGISTER_TYPED_TEST_SUITE_P(ReportShelfContract, IsEmptyAtFirst, KeepsReportsInTheirOrderBeyondTheProcess,
                            KeepsThemUntilItIsCleared, TakesReportsOfManyThreads);

}  // namespace morvik::test
