#include "../Answer.h"
#include "../Command.h"
#include "../StatsTable.h"
#include "kova/messages/Catalog.h"

namespace kova::ctl {
namespace {

using Words = std::vector<std::string>;

// Requests without fields of their own have no class.
Words functions() {
  Words words{"ExitService", "ResetDeviceSettings", "ResetToDefaults"};
  for (const auto& message : ipc::messages::catalog()) {
    if (message.name != ipc::messages::BaseResponseMessage::kName) {
      words.push_back(message.name);
    }
  }
  return words;
}

std::string assignment(const std::string& key, const std::string& type) {
  return key + (type == "string" ? "=" : ":=");
}

Words fields(const std::string& function) {
  Words words;
  for (const auto& message : ipc::messages::catalog()) {
    if (message.name == function) {
      for (const auto& field : message.fields) {
        words.push_back(assignment(field.key, field.type));
      }
    }
  }
  return words;
}

Words sections() {
  Words words;
  for (const StatsSection& section : statsSections()) {
    words.emplace_back(section.flag);
  }
  return words;
}

Words endpoints() {
  return {kServer, "kova_sounds_leds", "kova_discovery_server"};
}

Words candidates(const std::string& topic, const std::string& word) {
  if (topic == "functions") {
    return functions();
  }
  if (topic == "fields") {
    return fields(word);
  }
  if (topic == "sections") {
    return sections();
  }
  return topic == "endpoints" ? endpoints() : Words{};
}

}  // namespace

Action setUpComplete(CommandLine& line) {
  auto topic = std::make_shared<std::string>();
  auto words = std::make_shared<Words>();
  line.Argument("TOPIC", *topic, "functions, fields, sections or endpoints");
  line.Arguments("WORD", *words, "The function that fields are wanted of");
  return [topic, words](const Options&) {
    std::string text;
    for (const std::string& word : candidates(*topic, words->empty() ? "" : words->front())) {
      text += word + "\n";
    }
    return show(text);
  };
}

}  // namespace kova::ctl
