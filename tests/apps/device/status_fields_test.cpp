#include "apps/device/status_fields.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "services/json_writer.h"

namespace morvik_device {
namespace {

std::string jsonOf(const morvik::Status& status) {
  std::string text;
  morvik::services::appendJsonDescription(morvik::kit::Value(fieldsOf(status)), text);
  return text;
}

TEST(StatusFields, TellAllThatThereIs) {
  morvik::Status status;
  status.is_running = status.is_session_open = status.is_attributed = true;
  status.referral = {
      .conversion_key = 7, .sub_conversion_key = 12, .campaign_data = "spring", .install_datetime = "20240501120000"};
  status.waiting = {{"activities", 2}, {"crash reports", 1}};
  status.last_success = morvik::Status::Time(std::chrono::seconds(1'714'564'800));
  status.last_failure = {morvik::Status::Time(std::chrono::microseconds(1'714'564'801'500'000)),
                         {.http_status = 503, .reason = "out of order", .is_tried_again = false}};
  status.is_sending_enabled = false;
  status.is_forgotten = true;
  status.wish_file = morvik::WishFileState::kUnreadable;
  EXPECT_EQ(jsonOf(status),
            R"({"running":true,"session_open":true,"attributed":true,"referral":{"conversion_key":7,)"
            R"("sub_conversion_key":12,"campaign_data":"spring","install_datetime":"20240501120000"},)"
            R"("waiting":{"activities":2,"crash reports":1},"last_success":"2024-05-01T12:00:00Z",)"
            R"("last_failure":{"when":"2024-05-01T12:00:01.500000Z","http_status":503,"reason":"out of order",)"
            R"("tried_again":false},"sending":false,"forgotten":true,"wish_file":"unreadable"})");
}

TEST(StatusFields, TellNullForWhatThereIsNot) {
  EXPECT_EQ(jsonOf({}), R"({"running":false,"session_open":false,"attributed":false,"referral":null,"waiting":{},)"
                        R"("last_success":null,"last_failure":null,"sending":true,"forgotten":false,)"
                        R"("wish_file":"good"})");
}

}  // namespace
}  // namespace morvik_device
