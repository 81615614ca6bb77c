#include "apps/service/wire/inflater.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <memory>
#include <new>

#include "apps/service/base/refusal.h"

namespace morvik_service {
namespace {

constexpr std::size_t kChunkBytes = std::size_t{64} * 1024;

Refusal brokenStream(const std::string& problem) {
  return Refusal(400, "bad deflate: " + problem, "the sealed payload",
                 "deflate the JSON in zlib format, or clear the deflated flag");
}

struct EndInflate {
  void operator()(z_stream* stream) const { inflateEnd(stream); }
};

}  // namespace

std::string inflateBounded(std::string_view deflated, std::size_t max_bytes) {
  z_stream stream{};
  if (inflateInit(&stream) != Z_OK)
    throw std::bad_alloc();
  const std::unique_ptr<z_stream, EndInflate> ended_at_exit(&stream);
  // zlib's interface predates const; it does not write to its input.
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(deflated.data()));
  stream.avail_in = static_cast<uInt>(deflated.size());
  std::array<char, kChunkBytes> chunk;
  std::string plain;
  int state = Z_OK;
  while (state != Z_STREAM_END) {
    stream.next_out = reinterpret_cast<Bytef*>(chunk.data());
    stream.avail_out = static_cast<uInt>(chunk.size());
    state = inflate(&stream, Z_NO_FLUSH);
    const std::size_t produced = chunk.size() - stream.avail_out;
    if (state == Z_BUF_ERROR)
      throw brokenStream("the stream is cut short");
    if (state != Z_OK && state != Z_STREAM_END)
      throw brokenStream("the stream cannot be read");
    if (produced > max_bytes - plain.size()) {
      throw Refusal(413, "the payload inflates to more than " + std::to_string(max_bytes) + " bytes",
                    "the sealed payload", "send smaller batches");
    }
    plain.append(chunk.data(), produced);
  }
  if (stream.avail_in != 0)
    throw brokenStream("bytes follow the end of the stream");
  return plain;
}

}  // namespace morvik_service
