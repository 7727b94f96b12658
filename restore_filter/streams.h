#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "platform/linux/descriptor.h"
#include "restore_filter/host_files.h"

// The named streams of a local file: the tag, and the record of its restoration. A stream is
// trusted only if nobody but root and this process's user can have chosen its content: one of these
// two owns the file, one of them the stream, nobody else can write the stream, and it is a regular
// file with one link. Otherwise each function throws ERROR_ACCESS_DENIED. A symbolic link on the
// way fails too. ERROR_NOT_SUPPORTED: the file system records no birth times, and has no real named
// streams, so that nothing tells which file a stream is about.

/// The backing path in the tag of the file that `local` is open on, in UTF-8; nothing if the file
/// has no tag or was deleted. The tag's strategy is advice; a start brings its own. Throws
/// ERROR_INVALID_DATA if the tag is incomplete or malformed.
std::optional<std::string> readTag(const descriptor& local);

/// The stream ":restore_filter_progress": which file and which backing path it is about, and
/// whether the restoration has begun or the file is whole. No device number, which changes with a
/// reboot, and no count: after a kill or a crash, a restoration begins again.
class progress_record {
 public:
  progress_record(const file_identity& local, std::string pathOfBacking)
      : content{mark, local, 0, 0}, backingPath(std::move(pathOfBacking)) {}

  /// Reads the stream of the file that `local` is open on, which has `size` bytes. False if the
  /// file has content but no record that fits, or if the stream is no record.
  bool read(const descriptor& local, std::uint64_t size);
  /// Opens the stream for saving. Replaces one that does not fit.
  void open(const descriptor& local);
  /// Saves that the restoration has begun, and syncs the tag and the record.
  void saveBegun(const descriptor& local);
  /// Saves and syncs that the file is whole, with this length. Throws ERROR_FILE_INVALID if the
  /// file's stream does not say that this restoration has begun.
  void saveWhole(const descriptor& local, std::uint64_t length);

  /// Whether the restoration is finished. After that nothing is written into the file.
  bool isWhole() const { return content.isWhole != 0; }
  /// The length of a whole file when it became whole.
  std::uint64_t wholeLength() const { return content.length; }

 private:
  struct layout {  // the backing path follows it, up to the end of the stream
    std::uint64_t mark;
    file_identity local;
    std::uint64_t isWhole;  // 0 or 1
    std::uint64_t length;   // of a whole file
  };
  static_assert(sizeof(layout) == 48);
  static constexpr std::uint64_t mark = 0x316472636572667a;  // "zfrecrd1"

  std::string bytesOf(const layout& header) const;
  void save();

  layout content;
  std::string backingPath;
  bool fits = false;  // there is a stream, and it is the record of this file and backing path
  descriptor stream;
};
