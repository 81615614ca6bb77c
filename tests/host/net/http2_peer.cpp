#include "tests/host/net/http2_peer.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace morvik::test {

namespace {

constexpr std::string_view kPreface = "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n";
constexpr size_t kFrameHeadBytes = 9;

enum Type : uint8_t { kData = 0, kHeaders = 1, kSettings = 4, kPing = 6, kGoAway = 7, kWindowUpdate = 8 };
enum Flag : uint8_t { kEndStream = 1, kAck = 1, kEndHeaders = 4 };

struct Frame {
  uint8_t type = 0;
  uint8_t flags = 0;
  uint32_t stream = 0;
  std::string payload;
};

uint32_t number(std::string_view bytes) {
  uint32_t value = 0;
  for (const char byte : bytes)
    value = (value << 8) | static_cast<unsigned char>(byte);
  return value;
}

std::string bytesOf(uint32_t value, int count) {
  std::string bytes;
  for (int shift = 8 * (count - 1); shift >= 0; shift -= 8)
    bytes += static_cast<char>((value >> shift) & 0xFF);
  return bytes;
}

std::string packed(const Frame& frame) {
  return bytesOf(static_cast<uint32_t>(frame.payload.size()), 3) + bytesOf(frame.type, 1) + bytesOf(frame.flags, 1) +
         bytesOf(frame.stream, 4) + frame.payload;
}

class Reader {
 public:
  explicit Reader(Peer& peer) : peer_(peer) {}
  std::optional<std::string> bytes(size_t count) {
    while (received_.size() < count) {
      if (!peer_.read(received_))
        return std::nullopt;
    }
    std::string taken = received_.substr(0, count);
    received_.erase(0, count);
    return taken;
  }
  std::optional<Frame> frame() {
    const auto head = bytes(kFrameHeadBytes);
    if (!head)
      return std::nullopt;
    const std::string_view view = *head;
    Frame frame{.type = static_cast<uint8_t>(view[3]),
                .flags = static_cast<uint8_t>(view[4]),
                .stream = number(view.substr(5)) & 0x7FFFFFFF,
                .payload = {}};
    auto payload = bytes(number(view.substr(0, 3)));
    if (!payload)
      return std::nullopt;
    frame.payload = std::move(*payload);
    return frame;
  }

 private:
  Peer& peer_;
  std::string received_;
};

}  // namespace

void serveHttp2(Peer& peer, size_t connection, const std::function<void(const ServedRequest&)>& note) {
  Reader reader(peer);
  if (reader.bytes(kPreface.size()) != kPreface || !peer.write(packed({.type = kSettings})))
    return;
  std::map<uint32_t, std::string> bodies;
  while (const auto frame = reader.frame()) {
    if (frame->type == kGoAway)
      return;
    if (frame->type == kSettings && (frame->flags & kAck) == 0)
      peer.write(packed({.type = kSettings, .flags = kAck}));
    if (frame->type == kPing && (frame->flags & kAck) == 0)
      peer.write(packed({.type = kPing, .flags = kAck, .stream = 0, .payload = frame->payload}));
    if (frame->type != kData && frame->type != kHeaders)
      continue;
    if (frame->type == kData && !frame->payload.empty()) {
      bodies[frame->stream] += frame->payload;
      const std::string room = bytesOf(static_cast<uint32_t>(frame->payload.size()), 4);
      peer.write(packed({.type = kWindowUpdate, .flags = 0, .stream = 0, .payload = room}) +
                 packed({.type = kWindowUpdate, .flags = 0, .stream = frame->stream, .payload = room}));
    }
    if ((frame->flags & kEndStream) == 0)
      continue;
    ServedRequest request;
    request.body = bodies[frame->stream];
    request.connection = connection;
    request.is_http2 = true;
    note(request);
    // "\x88" is the whole head ":status: 200".
    peer.write(packed({.type = kHeaders, .flags = kEndHeaders, .stream = frame->stream, .payload = "\x88"}) +
               packed({.type = kData, .flags = kEndStream, .stream = frame->stream, .payload = "over HTTP/2"}));
  }
}

}  // namespace morvik::test
