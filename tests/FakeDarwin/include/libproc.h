// The part of libproc that the macOS layer uses.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#define PROC_PIDPATHINFO_MAXSIZE 4096

extern "C" {
int proc_listallpids(void* buffer, int size);
int proc_pidinfo(int pid, int flavor, uint64_t argument, void* buffer, int size);
int proc_pidpath(int pid, void* buffer, uint32_t size);
}
