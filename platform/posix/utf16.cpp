#include "platform/posix/utf16.h"

#include <windows.h>

namespace {

constexpr std::uint32_t firstByteEscape = 0xDC80;
constexpr std::uint32_t lastByteEscape = 0xDCFF;

// The code point at the start of `bytes` and its length, or length 0 when the
// first byte begins no well-formed sequence.
struct decoded {
  std::uint32_t codePoint;
  std::size_t length;
};

decoded decodeOne(const unsigned char* bytes, std::size_t size) {
  const unsigned char lead = bytes[0];
  std::size_t length = 0;
  if ((lead & 0xE0) == 0xC0) {
    length = 2;
  } else if ((lead & 0xF0) == 0xE0) {
    length = 3;
  } else if ((lead & 0xF8) == 0xF0) {
    length = 4;
  }
  if (length == 0 || length > size) return {0, 0};
  std::uint32_t codePoint = lead & (0x7Fu >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if ((bytes[i] & 0xC0) != 0x80) return {0, 0};
    codePoint = codePoint << 6 | (bytes[i] & 0x3Fu);
  }
  constexpr std::uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
  const bool isSurrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
  if (codePoint < smallest[length] || codePoint > 0x10FFFF || isSurrogate) return {0, 0};
  return {codePoint, length};
}

std::size_t encodeOne(std::uint32_t codePoint, char* bytes) {
  const auto tail = [&](int shift) {
    return static_cast<char>(0x80 | (codePoint >> shift & 0x3F));
  };
  if (codePoint < 0x80) {
    bytes[0] = static_cast<char>(codePoint);
    return 1;
  }
  if (codePoint < 0x800) {
    bytes[0] = static_cast<char>(0xC0 | codePoint >> 6);
    bytes[1] = tail(0);
    return 2;
  }
  if (codePoint < 0x10000) {
    bytes[0] = static_cast<char>(0xE0 | codePoint >> 12);
    bytes[1] = tail(6);
    bytes[2] = tail(0);
    return 3;
  }
  bytes[0] = static_cast<char>(0xF0 | codePoint >> 18);
  bytes[1] = tail(12);
  bytes[2] = tail(6);
  bytes[3] = tail(0);
  return 4;
}

template <typename Unit>
std::size_t encode(const Unit* units, std::size_t count, char* bytes, std::size_t capacity) {
  std::size_t size = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint32_t unit = static_cast<std::uint16_t>(units[i]);
    if (unit < 0x80 && size < capacity) {  // most of any path
      bytes[size++] = static_cast<char>(unit);
      continue;
    }
    char encoded[4];
    std::size_t length = 1;
    const std::uint32_t next = i + 1 < count ? static_cast<std::uint16_t>(units[i + 1]) : 0;
    if ((unit & 0xFC00) == 0xD800 && (next & 0xFC00) == 0xDC00) {
      length = encodeOne(0x10000 + ((unit & 0x3FF) << 10 | (next & 0x3FF)), encoded);
      ++i;
    } else if (unit >= firstByteEscape && unit <= lastByteEscape) {
      encoded[0] = static_cast<char>(unit);
    } else {
      length = encodeOne((unit & 0xF800) == 0xD800 ? 0xFFFD : unit, encoded);
    }
    if (length > capacity - size) return capacity + 1;
    for (std::size_t k = 0; k < length; ++k) bytes[size++] = encoded[k];
  }
  return size;
}

}  // namespace

std::size_t decodeUtf8(const char* bytes, std::size_t size, wchar_t* units) {
  const auto* input = reinterpret_cast<const unsigned char*>(bytes);
  std::size_t count = 0;
  for (std::size_t i = 0; i < size;) {
    if (input[i] < 0x80) {  // most of any path
      units[count++] = static_cast<wchar_t>(input[i++]);
      continue;
    }
    const decoded next = decodeOne(input + i, size - i);
    if (next.length == 0) {
      units[count++] = static_cast<wchar_t>(firstByteEscape | (input[i] & 0x7Fu));
      ++i;
      continue;
    }
    if (next.codePoint < 0x10000) {
      units[count++] = static_cast<wchar_t>(next.codePoint);
    } else {
      units[count++] = static_cast<wchar_t>(0xD800 + ((next.codePoint - 0x10000) >> 10));
      units[count++] = static_cast<wchar_t>(0xDC00 + (next.codePoint & 0x3FF));
    }
    i += next.length;
  }
  return count;
}

std::size_t encodeUtf8(const wchar_t* units, std::size_t count, char* bytes, std::size_t capacity) {
  return encode(units, count, bytes, capacity);
}

std::size_t encodeUtf8(const std::uint16_t* units, std::size_t count, char* bytes,
                       std::size_t capacity) {
  return encode(units, count, bytes, capacity);
}

int WideCharToMultiByte(UINT, DWORD, LPCWSTR units, int count, char* bytes, int capacity,
                        const char*, BOOL*) {
  const auto room = static_cast<std::size_t>(capacity);
  const std::size_t size = encodeUtf8(units, static_cast<std::size_t>(count), bytes, room);
  if (size <= room) return static_cast<int>(size);
  SetLastError(ERROR_INSUFFICIENT_BUFFER);
  return 0;
}
