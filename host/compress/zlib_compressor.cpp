#include "host/compress/zlib_compressor.h"

#include <zlib.h>

#include <algorithm>
#include <limits>

#include "host/compress/inflater.h"

namespace morvik::host {

using kit::Error;

namespace {

/// Bytes deflated between two checks for a stop: some ten milliseconds.
constexpr size_t kStepBytes = size_t{256} << 10;

/// A longer text is deflated for speed: the main queue waits for it, and poorly compressible text takes longest.
constexpr size_t kThoroughBytes = size_t{1} << 20;

/// Deflates one text, step by step, into a buffer large enough for all of it.
class Deflation {
 public:
  Deflation(std::string_view plain, std::string& out, size_t from)
      : left_(plain), out_(reinterpret_cast<Bytef*>(out.data() + from)), room_(out.size() - from) {}
  Deflation(const Deflation&) = delete;
  Deflation& operator=(const Deflation&) = delete;
  ~Deflation() { deflateEnd(&stream_); }

  int begin() { return deflateInit(&stream_, left_.size() > kThoroughBytes ? Z_BEST_SPEED : Z_DEFAULT_COMPRESSION); }
  /// Z_STREAM_END after the last step.
  int step() {
    const std::string_view piece = left_.substr(0, kStepBytes);
    left_.remove_prefix(piece.size());
    const size_t room = room_ - size_;
    // zlib counts in 32 bits; a step never needs more.
    const auto offered = static_cast<uInt>(std::min<size_t>(room, std::numeric_limits<uInt>::max()));
    stream_.next_in = const_cast<Bytef*>(reinterpret_cast<const Bytef*>(piece.data()));
    stream_.avail_in = static_cast<uInt>(piece.size());
    stream_.next_out = out_ + size_;
    stream_.avail_out = offered;
    const int result = deflate(&stream_, left_.empty() ? Z_FINISH : Z_NO_FLUSH);
    size_ += offered - stream_.avail_out;
    return result;
  }
  size_t size() const { return size_; }

 private:
  std::string_view left_;
  Bytef* const out_;
  const size_t room_;
  size_t size_ = 0;
  z_stream stream_{};
};

}  // namespace

std::optional<Error> ZlibCompressor::deflate(std::string_view plain, std::string& out) const {
  const size_t before = out.size();
  out.resize(before + compressBound(plain.size()));
  Deflation deflation(plain, out, before);
  int result = deflation.begin();
  if (result == Z_OK)
    result = deflation.step();
  // A text of one step is not worth the check.
  while (result == Z_OK) {
    if (stop_ != nullptr && stop_->isMade()) {
      out.resize(before);
      return Error{"could not deflate: the kit is being stopped"};
    }
    result = deflation.step();
  }
  if (result != Z_STREAM_END) {
    out.resize(before);
    return Error{std::string("could not deflate: ") + zError(result)};
  }
  out.resize(before + deflation.size());
  return std::nullopt;
}

std::optional<Error> ZlibCompressor::inflate(std::string_view deflated, size_t max_bytes, std::string& out) const {
  const size_t before = out.size();
  Inflater inflater(DeflateForm::kZlib, max_bytes);
  auto error = inflater.feed(deflated, out);
  if (!error)
    error = inflater.finish();
  if (error)
    out.resize(before);
  return error;
}

}  // namespace morvik::host
