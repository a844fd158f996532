// fcntl(2) with the commands of Darwin that the macOS layer uses.
#pragma once

#include_next <fcntl.h>

#define F_FULLFSYNC 51
