#include "Output.h"

#include <algorithm>
#include <string>

#include "Text.h"

namespace kova::ctl {
namespace {

using variant::Variant;

// The state of the one command that a process runs.
Variant kept;
bool presentedEach = false;
bool leftToOther = false;

Variant failureOf(ExitStatus status) {
  if (status == ExitStatus::Ok) {
    return {};
  }
  const ExitMeaning& meaning = meaningOf(status);
  const std::string& text = lastFailure();
  return Variant::Map{{"code", meaning.code}, {"text", text.empty() ? meaning.meaning : text}};
}

std::string document(const Variant& result, ExitStatus status, int indent) {
  const Variant whole = Variant::Map{
      {"ok", status == ExitStatus::Ok}, {"result", result}, {"error", failureOf(status)}};
  return json(whole, indent) + "\n";
}

bool isId(std::string_view key) {
  constexpr std::string_view kIds[] = {"id", "requestId", "transactionId"};
  return std::ranges::find(kIds, key) != std::end(kIds);
}

}  // namespace

ExitStatus present(const Options& options, const Variant& result, std::string_view text) {
  if (!options.json) {
    return show(text);
  }
  kept = result;
  return ExitStatus::Ok;
}

ExitStatus presentEach(const Options& options, const Variant& result, std::string_view text) {
  presentedEach = true;
  return show(options.json ? document(result, ExitStatus::Ok, -1) : text);
}

ExitStatus conclude(const Options& options, ExitStatus status) {
  if (!options.json || leftToOther || (presentedEach && status == ExitStatus::Ok)) {
    return status;
  }
  const ExitStatus shown = show(document(kept, status, presentedEach ? -1 : 2));
  return status == ExitStatus::Ok ? shown : status;
}

void leaveToOther() {
  leftToOther = true;
}

Variant withTextIds(const Variant& message) {
  Variant copy = message;
  if (message.isMap()) {
    for (const auto& [key, value] : message.elements()) {
      const bool counts = isId(key) && value.is(variant::VariantClass::Number);
      copy[key] = counts ? Variant(value.toJson()) : withTextIds(value);
    }
  } else if (message.IsArray()) {
    copy = Variant::Array{};
    for (const Variant& item : message.items()) {
      copy.pushToArray(withTextIds(item));
    }
  }
  return copy;
}

}  // namespace kova::ctl
