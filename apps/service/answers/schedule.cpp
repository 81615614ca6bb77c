#include "apps/service/answers/schedule.h"

#include <openssl/evp.h>

#include <array>
#include <stdexcept>
#include <utility>

#include "apps/service/base/files.h"
#include "apps/service/base/hexadecimal.h"
#include "apps/service/base/refusal.h"

namespace morvik_service {
namespace {

constexpr const char* kWhereSchedule = "the schedule";
constexpr std::string_view kOwn =
    R"({"campaigns":[{"campaign_key":7,"space_key":"banner","resource_key":8,"conversion_key":9}]})";

std::string sha256(std::string_view bytes) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest;
  unsigned size = 0;
  if (EVP_Digest(bytes.data(), bytes.size(), digest.data(), &size, EVP_sha256(), nullptr) != 1)
    throw std::runtime_error("OpenSSL cannot make a digest");
  return {reinterpret_cast<const char*>(digest.data()), size};
}

Json parseSchedule(std::string_view text) {
  Json members = parseJson(text, kWhereSchedule);
  if (!members.is_object())
    throw Refusal(400, "the JSON is not an object", kWhereSchedule, "write one JSON object into the file");
  return members;
}

Refusal unusable(const std::string& problem) {
  return Refusal(503, "the schedule cannot be used: " + problem, "the file given with --schedule",
                 "write one JSON object into the file, then send again");
}

}  // namespace

Schedule::Schedule() {
  use(kOwn);
}

Schedule::Schedule(std::string file) : file_(std::move(file)) {
  try {
    use(readSmallFile(file_));
  } catch (const Refusal& refusal) {
    throw SetupError("--schedule: " + std::string(refusal.what()) + "; " + refusal.fix());
  }
}

// Compares bytes, not the file's time: two changes may share a timestamp.
void Schedule::use(std::string_view text) {
  std::string check_sum = encodeHexadecimal(sha256(text));
  if (check_sum != content_.check_sum)
    content_ = {parseSchedule(text), std::move(check_sum)};
}

const Schedule::Content& Schedule::current() {
  if (file_.empty())
    return content_;
  try {
    use(readSmallFile(file_));
  } catch (const Refusal& refusal) {
    throw unusable(refusal.what());
  } catch (const SetupError& error) {
    throw unusable(error.what());
  }
  return content_;
}

}  // namespace morvik_service
