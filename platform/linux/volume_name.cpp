#include "platform/linux/volume_name.h"

#include <charconv>
#include <cstdio>

namespace {

constexpr std::string_view idPrefix = "Volume{00000000-0000-0000-0000-";
constexpr std::size_t idDigits = 12;

}  // namespace

std::string volumeIdOf(dev_t device) {
  char digits[idDigits + 5];  // room for 64 bits, of which Linux uses 32
  std::snprintf(digits, sizeof(digits), "%0*lx", int{idDigits}, device);
  return std::string(idPrefix) + digits + '}';
}

std::string deviceNameOf(dev_t device) {
  return "\\Device\\HarddiskVolume" + std::to_string(device);
}

std::optional<dev_t> deviceOfVolumeId(std::string_view id) {
  if (id.size() != idPrefix.size() + idDigits + 1 || !id.starts_with(idPrefix)) return std::nullopt;
  const char* const digits = id.data() + idPrefix.size();
  dev_t device = 0;
  const auto parsed = std::from_chars(digits, digits + idDigits, device, 16);
  if (parsed.ptr != digits + idDigits || *parsed.ptr != '}') return std::nullopt;
  return device;
}
