// The earlier name of TerminalText.hpp.
#pragma once

#include "tools/HalvoRecords/TerminalText.hpp"
