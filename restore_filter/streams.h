#pragma once

#include <windows.h>

#include <array>
#include <cstdint>
#include <string>
#include <utility>

#include "platform/posix/descriptor.h"

// The named streams of a local file: the tag, and how far the file is restored. A stream is trusted
// only if nobody but root and this process's user can have chosen its content: one of these two
// owns the file, one of them the stream, nobody else can write the stream, and it is a regular file
// with one link. Otherwise each function returns ERROR_ACCESS_DENIED as an HRESULT. A symbolic link
// on the way to the stream fails too.

/// Reads the tag of the file that `local` is open on: `backingPath` becomes the path in it, in
/// UTF-8. Its strategy is advice; a start brings its own. Returns S_OK or, as an HRESULT,
/// ERROR_NOT_FOUND if the file has no tag or was deleted, or ERROR_INVALID_DATA if the tag is
/// incomplete or malformed.
HRESULT readTagOf(const descriptor& local, std::string& backingPath);

/// A file of a volume: the number of its inode and, since that is reused, its time of birth in
/// seconds and nanoseconds.
using file_identity = std::array<std::uint64_t, 3>;

/// The content of the stream ":restore_filter_progress": which file and which backing path it is
/// about, and how far the file is restored. No device number: that changes with a reboot.
class progress_record {
 public:
  progress_record(const file_identity& local, std::string pathOfBacking)
      : content{local, 0, 0}, backingPath(std::move(pathOfBacking)) {}

  /// Reads the stream of the file that `local` is open on. S_OK, or ERROR_NOT_FOUND as an HRESULT
  /// if there is none, or one of another file or backing path, or a malformed one.
  HRESULT read(const descriptor& local);
  /// Opens the stream for save(). Replaces it unless a record with restored bytes was read.
  HRESULT open(const descriptor& local);
  /// Replaces the stream's content, in one write, and syncs it. The first time it also syncs the
  /// tag, without which a record means nothing. After a failure it writes the old content again.
  HRESULT save(std::uint64_t restored, bool isWhole);

  /// How many bytes are restored and on the disk. Of a whole file, its length when it became whole.
  std::uint64_t restored() const { return content.restored; }
  /// Whether the restoration is finished. After that nothing is written into the file.
  bool isWhole() const { return content.isWhole != 0; }

 private:
  struct layout {  // the backing path follows it, up to the end of the stream
    file_identity local;
    std::uint64_t isWhole;  // 0 or 1
    std::uint64_t restored;
  };
  static_assert(sizeof(layout) == 40);

  bool write(const layout& next) const;

  layout content;
  std::string backingPath;
  descriptor stream;
  descriptor tag;  // until it is synced
};
