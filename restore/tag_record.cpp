#include "restore/tag_record.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <iterator>

static_assert(std::endian::native == std::endian::little, "the record is little-endian");

bool buildTagRecord(const std::wstring& ntPath, const RestoreStrategy& strategy,
                    RestoreTagRecord& record) noexcept {
  if (ntPath.size() > RESTORE_TAG_PATH_UNITS) return false;
  static constexpr std::uint8_t guid[] = RESTORE_TAG_GUID;
  record = {};
  record.tag = RESTORE_TAG;
  record.dataLength = RESTORE_TAG_DATA_LENGTH;
  std::copy(std::begin(guid), std::end(guid), record.guid);
  record.pathOffset = RESTORE_TAG_PATH_OFFSET;
  record.pathLength = static_cast<std::uint16_t>(ntPath.size() * sizeof(std::uint16_t));
  record.strategy = strategy;
  std::transform(ntPath.begin(), ntPath.end(), record.path,
                 [](wchar_t unit) { return static_cast<std::uint16_t>(unit); });
  return true;
}
