// The version of the project.
#pragma once

namespace halvo {

// "MAJOR.MINOR.PATCH", as the project's CMakeLists.txt states it.
extern const char* const version;

}  // namespace halvo
