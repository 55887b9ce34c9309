#include "Sleep.h"

std::function<unsigned int(unsigned int)> onSleep;

// Takes the place of the C library's.
extern "C" unsigned int sleep(unsigned int seconds) {
  return onSleep ? onSleep(seconds) : 0;
}
