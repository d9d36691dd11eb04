// A lower bound for the cost of a program that polls every 10 ms: only sleeps.

#include "tick.h"

int main() {
  for (;;) {
    sleepTick();
  }
}
