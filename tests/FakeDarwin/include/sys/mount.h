// statfs(2) with Darwin's mount flags.
#pragma once

#include_next <sys/mount.h>
#include <sys/statfs.h>

#define MNT_NOSUID 0x00000008
#define MNT_LOCAL 0x00001000
#define MNT_IGNORE_OWNERSHIP 0x00200000
