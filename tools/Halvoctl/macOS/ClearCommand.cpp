#include "tools/Halvoctl/Observation.hpp"
#include "tools/Halvoctl/ShellWord.hpp"

namespace halvo::control {

std::string clearCommand(const std::string& path) { return "chflags noschg " + shellWord(path); }

}  // namespace halvo::control
