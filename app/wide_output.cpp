#include "app/wide_output.h"

#include <algorithm>
#include <iostream>
#include <locale>

namespace zan {
namespace {

bool isHighSurrogate(wchar_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }

}  // namespace

wide_output::wide_output() : output(GetStdHandle(STD_OUTPUT_HANDLE)) {
  DWORD mode = 0;
  isConsole = GetConsoleMode(output, &mode) != FALSE;
  // Microsoft's library makes these two at the first number that is printed. Without memory the
  // program had then created a file already, and would print no more.
  static_cast<void>(std::use_facet<std::num_put<wchar_t>>(std::wcout.getloc()));
  static_cast<void>(std::use_facet<std::numpunct<wchar_t>>(std::wcout.getloc()));
  setp(units.data(), units.data() + units.size());
  previous = std::wcout.rdbuf(this);
}

wide_output::~wide_output() {
  sync();
  std::wcout.rdbuf(previous);
}

// Makes room for `unit`. Keeps a surrogate pair together: a high surrogate at the end waits for its
// other half.
wide_output::int_type wide_output::overflow(int_type unit) {
  const bool waits = pptr() > pbase() && isHighSurrogate(pptr()[-1]);
  const wchar_t last = waits ? pptr()[-1] : L'\0';
  write(pbase(), pptr() - pbase() - (waits ? 1 : 0));
  setp(units.data(), units.data() + units.size());
  if (waits) sputc(last);
  if (!traits_type::eq_int_type(unit, traits_type::eof())) sputc(traits_type::to_char_type(unit));
  return traits_type::not_eof(unit);
}

int wide_output::sync() {
  write(pbase(), pptr() - pbase());
  setp(units.data(), units.data() + units.size());
  // Always a success. A failure would silence every later line, even once a full disk has room.
  std::cout.rdbuf()->pubsync();
  return 0;
}

void wide_output::write(const wchar_t* text, std::ptrdiff_t count) const {
  if (count == 0) return;
  if (isConsole) {
    DWORD written = 0;
    WriteConsoleW(output, text, static_cast<DWORD>(count), &written, nullptr);
    return;
  }
  std::array<char, 3 * std::tuple_size_v<decltype(units)>> bytes;  // one unit is 3 bytes at most
  const int size = WideCharToMultiByte(CP_UTF8, 0, text, static_cast<int>(count), bytes.data(),
                                       static_cast<int>(bytes.size()), nullptr, nullptr);
  std::cout.rdbuf()->sputn(bytes.data(), std::max(size, 0));
}

}  // namespace zan
