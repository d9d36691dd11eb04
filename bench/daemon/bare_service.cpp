// The peer for request rates: an endpoint that polls the bus as the daemon does and answers every
// request with the same small map, without parsing it.
//
//   bench_bare_service NAME        NAME: the bus name to own

#include "bus.h"
#include "tick.h"

namespace {

int answer(sd_bus_message* call, void*, sd_bus_error*) {
  return sd_bus_reply_method_return(call, "a{sv}", 4, "functionName", "s", "__response__",
                                    "requestId", "s", "0", "statusCode", "t", std::uint64_t{0},
                                    "payload", "a{sv}", 0);
}

constexpr sd_bus_vtable kTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Send", "a{sv}", "a{sv}", answer, SD_BUS_VTABLE_UNPRIVILEGED), SD_BUS_VTABLE_END};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    bench::giveUp("usage", "bench_bare_service NAME");
  }
  const bench::BusPtr bus = bench::joinBus();
  bench::check(sd_bus_add_object_vtable(bus.get(), nullptr, "/kova", "kova.Ipc1", kTable, nullptr),
               "serving the object");
  bench::check(sd_bus_request_name(bus.get(), argv[1], 0), "owning the name");
  for (;;) {
    while (bench::check(sd_bus_process(bus.get(), nullptr), "handling messages") > 0) {
    }
    sleepTick();
  }
}
