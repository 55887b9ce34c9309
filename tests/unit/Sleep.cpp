#include "Sleep.h"

std::function<unsigned int(unsigned int)> onSleep;

// Replaces the C library's function.
extern "C" unsigned int sleep(unsigned int seconds) {
  return onSleep ? onSleep(seconds) : 0;
}
