#include "host/crypto/zlib_compressor.h"

#include <zlib.h>

#include "host/crypto/inflater.h"

namespace morvik::host {

using kit::Error;

std::optional<Error> ZlibCompressor::deflate(std::string_view plain, std::string& out) const {
  const size_t before = out.size();
  uLongf size = compressBound(plain.size());
  out.resize(before + size);
  const int result = compress2(reinterpret_cast<Bytef*>(out.data() + before), &size,
                               reinterpret_cast<const Bytef*>(plain.data()), plain.size(), Z_DEFAULT_COMPRESSION);
  if (result != Z_OK) {
    out.resize(before);
    return Error{std::string("could not deflate: ") + zError(result)};
  }
  out.resize(before + size);
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
