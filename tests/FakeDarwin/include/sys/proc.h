// Process states, as in proc_pidinfo().
#pragma once

#define SRUN 2
#define SSTOP 4
