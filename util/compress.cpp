#include "util/compress.h"

#include <cryptopp/filters.h>
#include <cryptopp/hex.h>
#include <zlib.h>

#include <stdexcept>

namespace {

std::string Hexadecimal(const unsigned char* bytes, size_t length) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(length * 2);
  for (size_t i = 0; i < length; ++i) {
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 15];
  }
  return text;
}

std::string FromHexadecimal(const std::string& text) {
  std::string bytes;
  CryptoPP::StringSource source(text, true,
                                new CryptoPP::HexDecoder(new CryptoPP::StringSink(bytes)));
  return bytes;
}

struct Inflater {
  z_stream stream{};
  Inflater() {
    if (inflateInit(&stream) != Z_OK) throw std::runtime_error("zlib: cannot start inflating");
  }
  ~Inflater() { inflateEnd(&stream); }
  Inflater(const Inflater&) = delete;
  Inflater& operator=(const Inflater&) = delete;
};

}  // namespace

std::string compress_string(const char* text, size_t length, int level) {
  uLongf size = compressBound(static_cast<uLong>(length));
  std::string compressed(size, '\0');
  auto* out = reinterpret_cast<Bytef*>(compressed.data());
  if (compress2(out, &size, reinterpret_cast<const Bytef*>(text), static_cast<uLong>(length),
                level) != Z_OK) {
    throw std::runtime_error("zlib: cannot compress");
  }
  return Hexadecimal(out, size);
}

std::string decompress_string(const std::string& text) {
  if (text.compare(0, 4, "789C") != 0) return text;
  std::string compressed = FromHexadecimal(text);
  Inflater inflater;
  inflater.stream.next_in = reinterpret_cast<Bytef*>(compressed.data());
  inflater.stream.avail_in = static_cast<uInt>(compressed.size());
  std::string bytes;
  char chunk[16384];
  int result = Z_OK;
  while (result == Z_OK) {
    inflater.stream.next_out = reinterpret_cast<Bytef*>(chunk);
    inflater.stream.avail_out = sizeof(chunk);
    result = inflate(&inflater.stream, Z_NO_FLUSH);
    bytes.append(chunk, sizeof(chunk) - inflater.stream.avail_out);
  }
  if (result != Z_STREAM_END) throw std::runtime_error("zlib: the compressed text is damaged");
  return bytes;
}
