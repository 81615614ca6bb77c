#include "host/compress/inflater.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <limits>

namespace morvik::host {

using kit::Error;

namespace {

constexpr size_t kPieceBytes = size_t{16} << 10;
/// The library counts its input bytes in an unsigned int.
constexpr size_t kMaxFeedBytes = std::numeric_limits<uInt>::max();

/// How the library is told the format.
int windowBits(DeflateForm form) {
  constexpr int largest_window = 15;
  switch (form) {
    case DeflateForm::kGzip:
      return largest_window + 16;
    case DeflateForm::kRaw:
      return -largest_window;
    default:
      return largest_window;
  }
}

}  // namespace

void Inflater::Release::operator()(z_stream_s* stream) const {
  inflateEnd(stream);
  delete stream;
}

Inflater::Inflater(DeflateForm form, size_t max_bytes) : form_(form), max_bytes_(max_bytes), stream_(new z_stream_s{}) {
  if (inflateInit2(stream_.get(), windowBits(form)) != Z_OK)
    delete stream_.release();
}

Inflater::~Inflater() = default;

std::optional<Error> Inflater::feed(std::string_view deflated, std::string& out) {
  if (!stream_)
    return Error{"there is no memory to inflate with"};
  while (!deflated.empty()) {
    const std::string_view part = deflated.substr(0, kMaxFeedBytes);
    deflated.remove_prefix(part.size());
    // The library never writes to its input; its type only says so if asked at compile time.
    stream_->next_in = reinterpret_cast<Bytef*>(const_cast<char*>(part.data()));
    stream_->avail_in = static_cast<uInt>(part.size());
    if (auto error = feedStream(out))
      return error;
  }
  return std::nullopt;
}

std::optional<Error> Inflater::feedStream(std::string& out) {
  std::array<char, kPieceBytes> piece;
  size_t produced = piece.size();
  // If the piece is full, the library may still hold more.
  while (stream_->avail_in > 0 || produced == piece.size()) {
    if (at_end_) {
      if (stream_->avail_in == 0)
        return std::nullopt;
      if (form_ != DeflateForm::kGzip)
        return Error{"bytes follow the end of the deflated data"};
      inflateReset(stream_.get());
      at_end_ = false;
    }
    stream_->next_out = reinterpret_cast<Bytef*>(piece.data());
    stream_->avail_out = static_cast<uInt>(piece.size());
    const int result = ::inflate(stream_.get(), Z_NO_FLUSH);
    produced = piece.size() - stream_->avail_out;
    if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR)
      return Error{std::string("the deflated data is damaged: ") +
                   (stream_->msg == nullptr ? zError(result) : stream_->msg)};
    at_end_ = result == Z_STREAM_END;
    if (produced > max_bytes_ - inflated_bytes_) {
      ran_over_ = true;
      return Error{"inflated it has more than " + std::to_string(max_bytes_) + " bytes"};
    }
    inflated_bytes_ += produced;
    out.append(piece.data(), produced);
  }
  return std::nullopt;
}

std::optional<Error> Inflater::finish() const {
  return at_end_ ? std::nullopt : std::optional(Error{"the deflated data ends too early"});
}

}  // namespace morvik::host
