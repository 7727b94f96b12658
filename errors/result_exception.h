#pragma once

#include <windows.h>

#include <boost/exception/all.hpp>
#include <exception>
#include <string>

#include "errors/hresult.h"

namespace zan::except {

/// A system function of the filter communication layer failed. The exception has no text of its
/// own. boost::diagnostic_information prints the throw location, the HRESULT
/// (errinfo_HRESULT) and the function's name (boost::errinfo_api_function).
struct result_exception : virtual boost::exception, virtual std::exception {};

// A class, not a struct. Boost prints in the order of type_info::name(). With MSVC, names contain
// "class" or "struct", and "class" comes before the "struct" of errinfo_api_function: so the
// HRESULT is printed first.
class errinfo_HRESULT_;
/// The HRESULT that the function returned, as a 32-bit pattern.
using errinfo_HRESULT = boost::error_info<errinfo_HRESULT_, DWORD>;

/// Renders the HRESULT as "0x" and lowercase digits, without a line end. diagnostic_information
/// finds this function by argument-dependent lookup.
std::string to_string(const errinfo_HRESULT& info);

}  // namespace zan::except
