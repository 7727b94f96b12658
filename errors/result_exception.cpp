#include "errors/result_exception.h"

#include <sstream>

namespace zan::except {

std::string to_string(const errinfo_HRESULT& info) {
  std::ostringstream text;
  text << "0x" << std::hex << info.value();
  return text.str();
}

}  // namespace zan::except
