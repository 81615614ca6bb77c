// Bounded decompression of what devices send.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace morvik_service {

/// A payload may grow to this many bytes when inflated; beyond it the request is refused, so that a small body cannot
/// fill the memory.
inline constexpr std::size_t kMaxInflatedBytes = std::size_t{64} * 1024 * 1024;

/// Inflates one whole zlib stream of at most `max_bytes` plain bytes. Throws Refusal: 400 when the stream is broken,
/// cut short or followed by more bytes, 413 when it is larger than `max_bytes`.
std::string inflateBounded(std::string_view deflated, std::size_t max_bytes = kMaxInflatedBytes);

}  // namespace morvik_service
