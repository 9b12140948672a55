// String types of the framework.
//
// Vela::Name names entities and directory entries, Vela::String8 is a byte
// string used as a key, Vela::String is free text. All three are plain
// std::string underneath so that they cost nothing to convert.
#pragma once

#include <string>

namespace Vela {

using Name = std::string;
using String8 = std::string;
using String = std::string;

}  // namespace Vela
