#include "fsfilter/filter_port.h"

#include <fltuser.h>
#include <windows.h>

#include <array>

#include "errors/result_exception.h"
#include "fsfilter/debug_trace.h"
#include "zan_restore_filter.h"

namespace zan::fsfilter {

// The filter looks only at the size of the context. With zeros, nothing from this process's memory
// gets to it.
static const std::array<BYTE, RESTORE_FILTER_CONNECTION_CONTEXT_SIZE> connectionContext{};

filter_port::filter_port(const std::wstring& name)
    : portName(name), portHandle(INVALID_HANDLE_VALUE) {
  const HRESULT result =
      FilterConnectCommunicationPort(portName.c_str(), 0, connectionContext.data(),
                                     RESTORE_FILTER_CONNECTION_CONTEXT_SIZE, nullptr, &portHandle);
  if (result >= 0) return;

  traceLine(L"FilterConnectCommunicationPort failed: portName = ", portName, L", error = 0x",
            std::hex, except::bitsOf(result));
  portHandle = INVALID_HANDLE_VALUE;
  portName.clear();
}

filter_port::~filter_port() {
  if (portHandle != INVALID_HANDLE_VALUE && !CloseHandle(portHandle)) {
    traceLine(L"CloseHanle failed: portName = ", portName, L", error = 0x", std::hex,
              GetLastError());
  }
  portHandle = INVALID_HANDLE_VALUE;
  portName.clear();
}

DWORD filter_port::sendMessage(void* input, DWORD inputLength, void* output, DWORD outputLength) {
  DWORD returned = 0;
  const HRESULT result =
      FilterSendMessage(portHandle, input, inputLength, output, outputLength, &returned);
  if (result == S_OK) return returned;

  // Any other result is a failure, even a positive success code. Boost prints what the exception
  // holds in the order of the type names, not of these lines: the HRESULT first, then the
  // function.
  except::result_exception failure;
  failure << boost::errinfo_api_function("FilterSendMessage");
  failure << except::errinfo_HRESULT(except::bitsOf(result));
  BOOST_THROW_EXCEPTION(failure);  // must stay on line 52, which it prints: logs rely on it
}

}  // namespace zan::fsfilter
