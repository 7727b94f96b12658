#pragma once

#include <windows.h>

#include <filesystem>
#include <string>

namespace zan {

/// Converts a UTF-16 path, one code unit per wchar_t, to a std::filesystem::path.
inline std::filesystem::path hostPath(const std::wstring& path) {
  std::u8string bytes(3 * path.size(), u8'\0');
  bytes.resize(static_cast<std::size_t>(WideCharToMultiByte(
      CP_UTF8, 0, path.data(), static_cast<int>(path.size()), reinterpret_cast<char*>(bytes.data()),
      static_cast<int>(bytes.size()), nullptr, nullptr)));
  return bytes;
}

/// Converts a path to UTF-16, for the system's calls.
inline std::wstring widePath(const std::filesystem::path& path) {
  const std::u8string bytes = path.u8string();
  std::wstring units(bytes.size(), L'\0');
  const int size = static_cast<int>(bytes.size());
  units.resize(static_cast<std::size_t>(MultiByteToWideChar(
      CP_UTF8, 0, reinterpret_cast<const char*>(bytes.data()), size, units.data(), size)));
  return units;
}

/// The text of a path in UTF-8, for messages. path::string() throws on Windows if the ANSI code
/// page cannot spell it.
inline std::string textOf(const std::filesystem::path& path) {
  const std::u8string bytes = path.u8string();
  return {bytes.begin(), bytes.end()};
}

}  // namespace zan
