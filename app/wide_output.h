#pragma once

#include <windows.h>

#include <array>
#include <streambuf>

namespace zan {

/// While it lives, std::wcout takes UTF-16 and writes UTF-8 through std::cout's buffer, so wide and
/// narrow lines keep their order. On a Windows console, this class writes UTF-16 to the console
/// instead. The stock stream goes bad at the first character that its locale cannot write. This one
/// prints every character. A lone surrogate becomes U+FFFD; on Linux, one from U+DC80 to U+DCFF
/// becomes the byte that it stands for (platform/posix/utf16.h). Output that cannot be written is
/// dropped.
class wide_output final : public std::wstreambuf {
 public:
  wide_output();
  ~wide_output() override;
  wide_output(const wide_output&) = delete;
  wide_output& operator=(const wide_output&) = delete;

 protected:
  int_type overflow(int_type unit) override;
  int sync() override;

 private:
  void write(const wchar_t* text, std::ptrdiff_t count) const;

  HANDLE output;
  bool isConsole;
  std::wstreambuf* previous;
  std::array<wchar_t, 512> units;
};

}  // namespace zan
