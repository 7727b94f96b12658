#pragma once

#include <windows.h>

#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "zan_restore_filter.h"

// Files as a filter meets them: each function opens the file by CreateFileW with full sharing, and
// closes it. A stream is opened by its whole name. Failures are thrown as system_failure.

/// A call on a file failed. what() names the call and the file, and has the system's message.
struct system_failure : std::runtime_error {
  system_failure(const std::string& call, const std::filesystem::path& file);
};

HANDLE openFile(const std::filesystem::path& file, DWORD access = GENERIC_READ,
                DWORD disposition = OPEN_EXISTING, DWORD attributes = FILE_ATTRIBUTE_NORMAL);

/// The size of an open file, in bytes. `file` is its name in a failure.
std::uint64_t sizeOf(HANDLE opened, const std::filesystem::path& file);
std::uint64_t sizeOf(const std::filesystem::path& file);

/// At most `size` bytes of a file from `offset` on. Fewer if the file ends there.
std::string contentOf(const std::filesystem::path& file, std::uint64_t offset = 0,
                      std::size_t size = SIZE_MAX);

/// Writes into a file that exists.
void writeInto(const std::filesystem::path& file, std::uint64_t offset, const std::string& content);
/// Creates a file, or replaces its content.
void writeFile(const std::filesystem::path& file, const std::string& content);

/// Where a file has its tag, and how the tool writes it: unshared, and in one write.
inline std::filesystem::path tagOn(std::filesystem::path file) {
  return file += ":" RESTORE_TAG_STREAM_NAME_A ":$DATA";
}
void writeTag(const std::filesystem::path& file, const std::string& tag,
              DWORD disposition = CREATE_NEW);
