#include "platform/linux/utf16.h"

#include <boost/locale/utf.hpp>
#include <cstdint>

namespace {

namespace utf = boost::locale::utf;
using utf8 = utf::utf_traits<char>;

constexpr utf::code_point firstByteEscape = 0xDC80;
constexpr utf::code_point lastByteEscape = 0xDCFF;
constexpr utf::code_point replacementCharacter = 0xFFFD;

}  // namespace

std::size_t decodeUtf8(const char* bytes, std::size_t size, wchar_t* units) {
  wchar_t* out = units;
  for (const char* const end = bytes + size; bytes != end;) {
    const char* next = bytes;
    const utf::code_point point = utf8::decode(next, end);
    if (utf::is_valid_codepoint(point)) {
      out = utf::utf_traits<wchar_t, 2>::encode(point, out);
      bytes = next;
    } else {
      *out++ =
          static_cast<wchar_t>(firstByteEscape | (static_cast<unsigned char>(*bytes++) & 0x7F));
    }
  }
  return static_cast<std::size_t>(out - units);
}

std::size_t encodeUtf8(const wchar_t* units, std::size_t count, char* bytes, std::size_t capacity) {
  std::size_t size = 0;
  for (const wchar_t* const end = units + count; units != end;) {
    const auto first = static_cast<std::uint16_t>(*units & 0xFFFF);
    const wchar_t* next = units;
    utf::code_point point = utf::utf_traits<wchar_t, 2>::decode(next, end);
    if (!utf::is_valid_codepoint(point)) {
      next = units + 1;
      point = replacementCharacter;
    }
    const bool isByte = first >= firstByteEscape && first <= lastByteEscape;
    const std::size_t length = isByte ? 1 : static_cast<std::size_t>(utf8::width(point));
    if (length > capacity - size) return capacity + 1;
    if (isByte) {
      bytes[size] = static_cast<char>(first);
    } else {
      utf8::encode(point, bytes + size);
    }
    size += length;
    units = next;
  }
  return size;
}
