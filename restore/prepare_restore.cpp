#include <windows.h>

#include <iostream>
#include <string>

#include "app/commands.h"
#include "platform/file_handle.h"
#include "restore/nt_path.h"
#include "restore/tag_record.h"

namespace {

// A 16 KiB buffer. Only its first 16376 bytes, the record, go into the stream.
struct tag_buffer {
  RestoreTagRecord record;
  unsigned char unused[8];
};
static_assert(sizeof(tag_buffer) == 16384);

// Prints why the latest call failed.
void printFailure(const wchar_t* what) {
  const DWORD error = GetLastError();  // printing may change it
  std::wcout << what << std::hex << error << std::endl;
}

// Creates the tag stream and writes the record in one write. False if the stream is incomplete.
// Prints the outcome.
bool writeTagStream(const std::wstring& streamPath, const RestoreTagRecord& record,
                    const std::wstring& ntPath) {
  zan::file_handle stream(CreateFileW(streamPath.c_str(), GENERIC_ALL, 0, nullptr, CREATE_NEW,
                                      FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!stream.isOpen()) {
    printFailure(L"create tag stream failed: ");
    return false;
  }

  DWORD written = 0;
  if (!WriteFile(stream.get(), &record, sizeof(record), &written, nullptr)) {
    printFailure(L"writing tag stream failed: ");
    return false;
  }
  if (written != sizeof(record)) {
    std::wcout << L"writing tag stream failed - incomplete write: " << std::endl;
    return false;
  }
  std::wcout << L"create tag stream: " << ntPath << std::endl;
  return true;
}

}  // namespace

int prepareRestore(std::wstring file, std::wstring backingPath, const RestoreStrategy& strategy) {
  if (backingPath.empty()) return 1;

  // Everything that needs memory comes before the local file. Once that exists, nothing throws: the
  // file gets its tag, or the tool tries to delete it again.
  const std::wstring ntPath = toNtPath(backingPath);
  const std::wstring streamPath = file + RESTORE_TAG_STREAM;
  tag_buffer buffer;
  if (!buildTagRecord(ntPath, strategy, buffer.record)) return 1;

  zan::file_handle localFile(CreateFileW(file.c_str(), GENERIC_ALL,
                                         FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, CREATE_NEW,
                                         FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!localFile.isOpen()) {
    printFailure(L"create local file failed: ");
    return 1;
  }
  localFile.close();

  if (!writeTagStream(streamPath, buffer.record, ntPath)) {
    DeleteFileW(file.c_str());
    return 1;
  }
  return 0;
}
