#include "BusClient.h"

#include <cstdint>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace kova::system_test {

namespace {

// Longer than any answer of a camera may take, shorter than a test's time-out.
constexpr std::uint64_t kAnswerLimitUs = 60'000'000;

using MessagePtr = std::unique_ptr<sd_bus_message, decltype(&sd_bus_message_unref)>;

int check(int result, const char* what) {
  if (result < 0) {
    throw std::system_error(-result, std::generic_category(), what);
  }
  return result;
}

MessagePtr makeCall(sd_bus* bus, const Append& body) {
  sd_bus_message* call = nullptr;
  check(sd_bus_message_new_method_call(bus, &call, "kova.kova_ctlserver", "/kova", "kova.Ipc1",
                                       "Send"),
        "no message");
  MessagePtr owned(call, sd_bus_message_unref);
  check(body(call), "the body cannot be built");
  return owned;
}

// Reads the status from the body of a response; negative if the body is not a response.
int readStatus(sd_bus_message* answer, std::string& status) {
  int result = sd_bus_message_enter_container(answer, 'a', "{sv}");
  while (result >= 0 && (result = sd_bus_message_enter_container(answer, 'e', "sv")) > 0) {
    const char* key = nullptr;
    result = sd_bus_message_read(answer, "s", &key);
    if (result >= 0 && std::string_view(key) == "statusCode") {
      std::uint64_t number = 0;
      result = sd_bus_message_read(answer, "v", "t", &number);
      status = "status " + std::to_string(number);
    } else if (result >= 0) {
      result = sd_bus_message_skip(answer, "v");
    }
    if (result >= 0) {
      result = sd_bus_message_exit_container(answer);
    }
  }
  return result;
}

std::string describe(sd_bus_message* answer) {
  if (const sd_bus_error* error = sd_bus_message_get_error(answer)) {
    return error->name;
  }
  if (!sd_bus_message_has_signature(answer, "a{sv}")) {
    return "other";
  }
  if (sd_bus_message_is_empty(answer) == 0) {
    check(sd_bus_message_enter_container(answer, 'a', "{sv}"), "no map");
    const bool empty = sd_bus_message_at_end(answer, 0) > 0;
    check(sd_bus_message_rewind(answer, 1), "no second look");
    if (empty) {
      return "taken";
    }
  }
  std::string status = "other";
  return readStatus(answer, status) < 0 ? "other" : status;
}

bool isLoss(int result) {
  return result == -ECONNRESET || result == -ENOTCONN || result == -EPIPE || result == -ESHUTDOWN;
}

}  // namespace

Append text(std::string content) {
  return [content = std::move(content)](sd_bus_message* message) {
    return sd_bus_message_append(message, "v", "s", content.c_str());
  };
}

Append bytes(std::string content) {
  return [content = std::move(content)](sd_bus_message* message) {
    int result = sd_bus_message_open_container(message, 'v', "ay");
    if (result >= 0) {
      result = sd_bus_message_append_array(message, 'y', content.data(), content.size());
    }
    return result < 0 ? result : sd_bus_message_close_container(message);
  };
}

Append flag(bool content) {
  return value('b', static_cast<int>(content));
}

namespace {

int closeContainers(sd_bus_message* message, unsigned count) {
  int result = 0;
  for (unsigned i = 0; i < count && result >= 0; ++i) {
    result = sd_bus_message_close_container(message);
  }
  return result;
}

}  // namespace

Append nested(unsigned depth) {
  return [depth](sd_bus_message* message) {
    int result = 0;
    for (unsigned i = 0; i < depth && result >= 0; ++i) {
      result = sd_bus_message_open_container(message, 'v', "av");
      if (result >= 0) {
        result = sd_bus_message_open_container(message, 'a', "v");
      }
    }
    if (result >= 0) {
      result = sd_bus_message_append(message, "v", "a{sv}", 0);
    }
    return result < 0 ? result : closeContainers(message, 2 * depth);
  };
}

Append nestedArrays(unsigned depth) {
  return [depth](sd_bus_message* message) {
    const std::string signature = std::string(depth, 'a') + "s";
    int result = sd_bus_message_open_container(message, 'v', signature.c_str());
    for (unsigned i = 1; i <= depth && result >= 0; ++i) {
      result = sd_bus_message_open_container(message, 'a', signature.c_str() + i);
    }
    return result < 0 ? result : closeContainers(message, depth + 1);
  };
}

Append map(std::vector<Entry> entries) {
  return [entries = std::move(entries)](sd_bus_message* message) {
    int result = sd_bus_message_open_container(message, 'a', "{sv}");
    for (const auto& [key, content] : entries) {
      if (result >= 0) {
        result = sd_bus_message_open_container(message, 'e', "sv");
      }
      if (result >= 0) {
        result = sd_bus_message_append(message, "s", key.c_str());
      }
      if (result >= 0) {
        result = content(message);
      }
      if (result >= 0) {
        result = sd_bus_message_close_container(message);
      }
    }
    return result < 0 ? result : sd_bus_message_close_container(message);
  };
}

Append request(const std::string& functionName, std::vector<Entry> fields) {
  fields.emplace_back("functionName", text(functionName));
  fields.emplace_back("responseExpected", flag(true));
  return map(std::move(fields));
}

BusClient::BusClient(const std::string& address) : bus_(nullptr, sd_bus_close_unref) {
  sd_bus* bus = nullptr;
  check(sd_bus_new(&bus), "no bus");
  bus_.reset(bus);
  check(sd_bus_set_address(bus, address.c_str()), "no address");
  check(sd_bus_set_bus_client(bus, 1), "no client");
  check(sd_bus_start(bus), "the bus does not answer");
  const char* name = nullptr;
  check(sd_bus_get_unique_name(bus, &name), "the bus refuses to be joined");
}

BusClient::~BusClient() = default;

std::string BusClient::call(const Append& body) {
  const MessagePtr message = makeCall(bus_.get(), body);
  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_message* answer = nullptr;
  const int result = sd_bus_call(bus_.get(), message.get(), kAnswerLimitUs, &error, &answer);
  const MessagePtr owned(answer, sd_bus_message_unref);
  std::string outcome = isLoss(result) ? "lost" : error.name != nullptr ? error.name : "";
  sd_bus_error_free(&error);
  return outcome.empty() ? describe(answer) : outcome;
}

void BusClient::post(const Append& body) {
  const MessagePtr message = makeCall(bus_.get(), body);
  check(sd_bus_call_async(bus_.get(), nullptr, message.get(), onAnswer, this, kAnswerLimitUs),
        "the call cannot be sent");
  ++outstanding_;
}

int BusClient::onAnswer(sd_bus_message* answer, void* client, sd_bus_error*) {
  auto& self = *static_cast<BusClient*>(client);
  --self.outstanding_;
  ++self.outcomes_[describe(answer)];
  return 0;
}

void BusClient::pump(unsigned timeoutMs) {
  int handled = 0;
  while (check(sd_bus_process(bus_.get(), nullptr), "the connection is lost") > 0) {
    ++handled;
  }
  if (handled == 0 && timeoutMs > 0) {
    check(sd_bus_wait(bus_.get(), std::uint64_t{timeoutMs} * 1000), "the connection is lost");
  }
}

}  // namespace kova::system_test
