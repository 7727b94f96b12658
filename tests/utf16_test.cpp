// UTF-8 and UTF-16 on Linux, where any byte string may be a path.

#include "platform/posix/utf16.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::wstring decode(const std::string& bytes) {
  std::wstring units(bytes.size(), L'\0');
  units.resize(decodeUtf8(bytes.data(), bytes.size(), units.data()));
  return units;
}

std::string encode(const std::wstring& units) {
  std::string bytes(3 * units.size(), '\0');
  bytes.resize(encodeUtf8(units.data(), units.size(), bytes.data(), bytes.size()));
  return bytes;
}

}  // namespace

TEST(Utf16, DecodesAndReturnsTheSameBytes) {
  const std::pair<std::string, std::wstring> table[] = {
      {"a\x7F", L"a\x7F"},
      {"\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF", L"\x80\x7FF\x800\xFFFF"},
      {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", L"\xD800\xDC00\xDBFF\xDFFF"},
      {"\x80\xFF", L"\xDC80\xDCFF"},                                          // no lead byte
      {"\xC1\xBF\xC3", L"\xDCC1\xDCBF\xDCC3"},                                // overlong; cut short
      {"\xE0\x9F\xBF\xE2\x82", L"\xDCE0\xDC9F\xDCBF\xDCE2\xDC82"},            // overlong; cut short
      {"\xED\xA0\xBD\xED\xB8\x80", L"\xDCED\xDCA0\xDCBD\xDCED\xDCB8\xDC80"},  // surrogates
      {"\xF4\x90\x80\x80\xF8", L"\xDCF4\xDC90\xDC80\xDC80\xDCF8"},            // beyond U+10FFFF
      {"\xF0\x9F\x98\x80\x80", L"\xD83D\xDE00\xDC80"},  // pair, then a stray byte
  };
  for (const auto& [bytes, units] : table) {
    EXPECT_EQ(decode(bytes), units);
    EXPECT_EQ(encode(units), bytes);
  }
}

TEST(Utf16, EncodesOtherLoneSurrogatesAsReplacement) {
  EXPECT_EQ(encode(L"\xD800x\xDBFF\xDC00\xDC7F\xDD00\xDFFF"),
            "\xEF\xBF\xBDx\xF4\x8F\xB0\x80\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(Utf16, TellsWhenTheBytesDoNotFit) {
  char bytes[4];
  EXPECT_EQ(encodeUtf8(L"abc\xE9", 4, bytes, 4), 5u);
  EXPECT_EQ(encodeUtf8(L"abc", 3, bytes, 4), 3u);
}
