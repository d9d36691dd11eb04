// The least that a program which looks around every 10 ms can cost: it sleeps, and does nothing.

#include "tick.h"

int main() {
  for (;;) {
    sleepTick();
  }
}
