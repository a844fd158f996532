// How a process is, as proc_pidinfo() tells it.
#pragma once

#define SRUN 2
#define SSTOP 4
