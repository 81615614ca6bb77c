#include "runtime/loop/notification_center.h"

#include <gtest/gtest.h>

#include <string>

namespace morvik::runtime {
namespace {

using kit::Notification;

TEST(NotificationCenter, CallsTheObserversOfTheNotificationInOrderEachTime) {
  NotificationCenter center;
  std::string called;
  center.addObserver(Notification::kApplicationDidBecomeActive, [&called] { called += "a"; });
  center.addObserver(Notification::kApplicationDidEnterBackground, [&called] { called += "x"; });
  center.addObserver(Notification::kApplicationDidBecomeActive, [&called] { called += "b"; });
  center.post(Notification::kApplicationDidBecomeActive);
  center.post(Notification::kApplicationDidBecomeActive);
  EXPECT_EQ(called, "abab");
  center.post(Notification::kApplicationDidEnterBackground);
  EXPECT_EQ(called, "ababx");
}

TEST(NotificationCenter, LetsAnObserverAddedMeanwhileWaitForTheNextTime) {
  NotificationCenter center;
  std::string called;
  center.addObserver(Notification::kApplicationDidBecomeActive, [&] {
    called += "a";
    center.addObserver(Notification::kApplicationDidBecomeActive, [&called] { called += "b"; });
  });
  center.post(Notification::kApplicationDidBecomeActive);
  EXPECT_EQ(called, "a");
}

}  // namespace
}  // namespace morvik::runtime
