#include "host/net/answer_body.h"

#include <curl/curl.h>

#include <utility>

namespace morvik::host {

namespace {

bool isOneOf(std::string_view text, std::initializer_list<const char*> names) {
  const std::string owned(text);
  for (const char* name : names) {
    if (curl_strequal(owned.c_str(), name))
      return true;
  }
  return false;
}

/// "deflate" means the zlib format, but some servers send the raw one. The first byte of the zlib format ends in the
/// bits 1000; a raw stream beginning so would be a stored block with stray padding, which nothing writes.
DeflateForm formOfDeflate(char first_byte) {
  return (first_byte & 0x0F) == 8 ? DeflateForm::kZlib : DeflateForm::kRaw;
}

}  // namespace

bool AnswerBody::take(std::string_view content_encoding, std::string_view piece) {
  if (!error_ && !piece.empty()) {
    if (!std::exchange(has_begun_, true))
      begin(content_encoding, piece.front());
    append(piece);
  }
  return !error_;
}

void AnswerBody::finish() {
  if (error_ || !inflater_)
    return;
  if (const auto error = inflater_->finish())
    fail(error->message);
}

void AnswerBody::begin(std::string_view content_encoding, char first_byte) {
  if (isOneOf(content_encoding, {"gzip", "x-gzip"}))
    inflater_.emplace(DeflateForm::kGzip, max_bytes_);
  else if (isOneOf(content_encoding, {"deflate"}))
    inflater_.emplace(formOfDeflate(first_byte), max_bytes_);
  else if (!isOneOf(content_encoding, {"", "identity"}))
    fail("its encoding \"" + std::string(content_encoding) + "\" is not known here");
}

void AnswerBody::append(std::string_view piece) {
  if (error_)
    return;
  received_bytes_ += piece.size();
  if (received_bytes_ > max_bytes_ && received_bytes_ - max_bytes_ > (inflater_ ? kEncodingOverheadBytes : 0))
    return failTooLarge();
  if (!inflater_) {
    text_ += piece;
    return;
  }
  if (const auto error = inflater_->feed(piece, text_)) {
    if (inflater_->ranOver())
      return failTooLarge();
    fail(error->message);
  }
}

void AnswerBody::failTooLarge() {
  fail("it has more than " + std::to_string(max_bytes_) + " bytes");
}

void AnswerBody::fail(std::string why) {
  text_ = std::string();
  error_ = kit::Error{std::move(why)};
}

}  // namespace morvik::host
