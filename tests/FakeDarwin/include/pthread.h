// pthread_main_np(3).
#pragma once

#include_next <pthread.h>

extern "C" int pthread_main_np(void);
