#pragma once

#include <windows.h>

#include <boost/exception/all.hpp>
#include <exception>
#include <string>

namespace zan::except {

/// A system function of the filter communication layer failed. It has no text
/// of its own: what it says is the throw location, the function's name
/// (boost::errinfo_api_function) and its HRESULT (errinfo_HRESULT), printed by
/// boost::diagnostic_information.
struct result_exception : virtual boost::exception, virtual std::exception {};

// A class, not a struct: MSVC has that in the type's name, Boost orders what it prints by the
// names, and the HRESULT comes before the function.
class errinfo_HRESULT_;
/// The HRESULT that the function returned, as its 32-bit pattern.
using errinfo_HRESULT = boost::error_info<errinfo_HRESULT_, DWORD>;

/// Renders the HRESULT in diagnostic_information, which finds this by
/// argument-dependent lookup: "0x" and lowercase digits, nothing else.
std::string to_string(const errinfo_HRESULT& info);

}  // namespace zan::except
