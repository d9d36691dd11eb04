#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "kova/messages/Catalog.h"

/// Compares the tables of docs/bus.md with the schemas. A failure prints the expected table.
namespace kova::ipc::messages {
namespace {

std::string allowedOf(const FieldDescription& field) {
  if (!field.range.empty()) {
    return "held to " + field.range;
  }
  std::string text;
  for (const auto& value : field.allowed) {
    text += (text.empty() ? "`\"" : ", `\"") + value + "\"`";
  }
  return text;
}

std::string tableOf(const std::vector<FieldDescription>& fields) {
  std::string table = "| Key | Type | Default | Allowed |\n|---|---|---|---|\n";
  for (const auto& field : fields) {
    table += "| `" + field.key + "` | " + field.type + " | " + field.fallback + " | " +
             allowedOf(field) + " |\n";
  }
  return table;
}

class BusDoc : public testing::Test {
 protected:
  void SetUp() override {
    std::ifstream file(KOVA_DOCS "/bus.md");
    std::ostringstream content;
    content << file.rdbuf();
    text_ = content.str();
    ASSERT_FALSE(text_.empty());
  }

  /// The heading must be there, and the table must follow it before the next heading.
  void expectTable(const std::string& heading, const std::string& table) {
    const auto begin = text_.find("\n" + heading + "\n");
    ASSERT_NE(begin, std::string::npos) << "docs/bus.md lacks the heading: " << heading;
    const auto end = text_.find("\n#", begin + heading.size());
    const bool isThere = text_.substr(begin, end - begin).find(table) != std::string::npos;
    EXPECT_TRUE(isThere) << "docs/bus.md should say, under " << heading << ":\n\n" << table;
  }

  std::string text_;
};

TEST_F(BusDoc, HasCorrectTableOfEveryMessage) {
  for (const auto& message : catalog()) {
    expectTable("### `" + message.name + "`", tableOf(message.fields));
  }
}

TEST_F(BusDoc, HasTablesOfBothEnvelopes) {
  expectTable("### The envelope of every message", tableOf(messageEnvelope()));
  expectTable("### The envelope of requests and events", tableOf(requestEnvelope()));
}

}  // namespace
}  // namespace kova::ipc::messages
