#include "filter_check/files.h"

#include <algorithm>

#include "platform/file_handle.h"
#include "platform/wide_path.h"

using std::filesystem::path;
using zan::file_handle;

namespace {

constexpr DWORD fullSharing = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr std::size_t mostBytes = 16 << 20;  // of one read or write

HANDLE open(const path& file, DWORD access, DWORD share, DWORD disposition, DWORD attributes) {
  const HANDLE opened = CreateFileW(zan::widePath(file).c_str(), access, share, nullptr,
                                    disposition, attributes, nullptr);
  if (opened == INVALID_HANDLE_VALUE) throw system_failure("CreateFileW", file);
  return opened;
}

OVERLAPPED at(std::uint64_t offset) {
  OVERLAPPED place{};
  place.Offset = static_cast<DWORD>(offset);
  place.OffsetHigh = static_cast<DWORD>(offset >> 32);
  return place;
}

void write(HANDLE opened, const path& file, std::uint64_t offset, const std::string& content) {
  DWORD written = 0;
  for (std::size_t done = 0; done < content.size(); done += written) {
    OVERLAPPED place = at(offset + done);
    const auto size = static_cast<DWORD>(std::min(mostBytes, content.size() - done));
    if (!WriteFile(opened, &content[done], size, &written, &place) || written == 0) {
      throw system_failure("WriteFile", file);
    }
  }
}

// What the system says of the latest failure, and its number.
std::string lastMessage() {
  const DWORD code = GetLastError();
  wchar_t text[256];
  constexpr DWORD inOneLine = FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS | 0xFF;
  const DWORD size = FormatMessageW(inOneLine, nullptr, code, 0, text, 256, nullptr);
  std::string message = zan::textOf(zan::hostPath({text, size}));
  message.erase(message.find_last_not_of(' ') + 1);
  return message + " (error " + std::to_string(code) + ')';
}

}  // namespace

system_failure::system_failure(const std::string& call, const path& file)
    : runtime_error(call + " of " + zan::textOf(file.filename()) + ": " + lastMessage()) {}

HANDLE openFile(const path& file, DWORD access, DWORD disposition, DWORD attributes) {
  return open(file, access, fullSharing, disposition, attributes);
}

std::uint64_t sizeOf(HANDLE opened, const path& file) {
  LARGE_INTEGER size{};
  if (!GetFileSizeEx(opened, &size)) throw system_failure("GetFileSizeEx", file);
  return static_cast<std::uint64_t>(size.QuadPart);
}

std::uint64_t sizeOf(const path& file) {
  const file_handle opened(openFile(file));
  return sizeOf(opened.get(), file);
}

std::string contentOf(const path& file, std::uint64_t offset, std::size_t size) {
  const file_handle opened(openFile(file));
  const std::uint64_t end = sizeOf(opened.get(), file);
  std::string bytes(end < offset ? 0 : std::min<std::uint64_t>(size, end - offset), '\0');
  std::size_t done = 0;
  for (DWORD count = 1; done < bytes.size() && count != 0; done += count) {
    OVERLAPPED place = at(offset + done);
    const auto asked = static_cast<DWORD>(std::min(mostBytes, bytes.size() - done));
    count = 0;
    if (!ReadFile(opened.get(), &bytes[done], asked, &count, &place) &&
        GetLastError() != ERROR_HANDLE_EOF) {
      throw system_failure("ReadFile", file);
    }
  }
  bytes.resize(done);
  return bytes;
}

void writeInto(const path& file, std::uint64_t offset, const std::string& content) {
  const file_handle opened(openFile(file, GENERIC_WRITE));
  write(opened.get(), file, offset, content);
}

void writeFile(const path& file, const std::string& content) {
  const file_handle opened(openFile(file, GENERIC_WRITE, CREATE_ALWAYS));
  write(opened.get(), file, 0, content);
}

void writeTag(const path& file, const std::string& tag, DWORD disposition) {
  const file_handle stream(open(tagOn(file), GENERIC_ALL, 0, disposition, FILE_ATTRIBUTE_NORMAL));
  write(stream.get(), tagOn(file), 0, tag);
}
