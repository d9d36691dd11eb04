#include "bus.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace bench {

void giveUp(const char* what, const char* why) {
  std::fprintf(stderr, "%s: %s\n", what, why);
  std::exit(EXIT_FAILURE);
}

int check(int result, const char* what) {
  if (result < 0) {
    giveUp(what, std::strerror(-result));
  }
  return result;
}

BusPtr joinBus() {
  const char* address = std::getenv("KOVA_BUS_ADDRESS");
  if (address == nullptr) {
    giveUp("KOVA_BUS_ADDRESS", "not set");
  }
  sd_bus* created = nullptr;
  check(sd_bus_new(&created), "making a connection");
  BusPtr bus(created);
  check(sd_bus_set_address(bus.get(), address), "setting the address");
  check(sd_bus_set_bus_client(bus.get(), 1), "being a client");
  check(sd_bus_start(bus.get()), "joining the bus");
  return bus;
}

}  // namespace bench
