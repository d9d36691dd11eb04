#include "JsonFault.h"

#include "Text.h"
#include "kova/variant/Variant.h"

namespace kova::ctl {
namespace {

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

// Each step consumes what it is named after and tells whether that was there; the first step that
// fails leaves the reason, and `at_` where it stopped.
class Scanner {
 public:
  explicit Scanner(std::string_view text) : text_(text) {}

  std::optional<JsonFault> Run() {
    if (value(0)) {
      blanks();
      if (at_ == text_.size()) {
        return std::nullopt;
      }
      reason_ = "something follows the value";
    }
    return JsonFault{at_, reason_};
  }

 private:
  bool fault(const char* reason) {
    reason_ = reason;
    return false;
  }
  char peek() const { return at_ < text_.size() ? text_[at_] : '\0'; }
  bool take(char c) {
    if (peek() != c || at_ == text_.size()) {
      return false;
    }
    ++at_;
    return true;
  }
  void blanks() {
    while (peek() == ' ' || peek() == '\t' || peek() == '\n' || peek() == '\r') {
      ++at_;
    }
  }

  bool value(int depth) {
    blanks();
    if (at_ == text_.size()) {
      return fault("the text ends where a value should stand");
    }
    switch (peek()) {
      case '{':
        return container(depth, '}', &Scanner::member);
      case '[':
        return container(depth, ']', &Scanner::value);
      case '"':
        return string();
      case 't':
        return word("true");
      case 'f':
        return word("false");
      case 'n':
        return word("null");
      default:
        return number();
    }
  }

  bool container(int depth, char close, bool (Scanner::*element)(int)) {
    if (depth == variant::Variant::kMaxDepth) {
      return fault("nested too deeply");
    }
    ++at_;
    blanks();
    if (take(close)) {
      return true;
    }
    do {
      if (!(this->*element)(depth + 1)) {
        return false;
      }
      blanks();
    } while (take(','));
    return take(close) ||
           fault(close == '}' ? "a \",\" or \"}\" is missing" : "a \",\" or \"]\" is missing");
  }

  bool member(int depth) {
    blanks();
    if (peek() != '"') {
      return fault("a key in double quotes should stand here");
    }
    if (!string()) {
      return false;
    }
    blanks();
    return take(':') ? value(depth) : fault("a \":\" is missing");
  }

  bool string() {
    ++at_;
    while (at_ < text_.size() && peek() != '"') {
      if (static_cast<unsigned char>(peek()) < 0x20) {
        return fault("a control character must be written as an escape");
      }
      if (peek() == '\\' ? !escape() : !character()) {
        return false;
      }
    }
    return take('"') || fault("the closing quote of a string is missing");
  }

  bool character() {
    const std::size_t length = utf8Length(text_, at_);
    at_ += length;
    return length != 0 || fault("this is not UTF-8");
  }

  bool escape() {
    const std::size_t start = at_++;
    if (take('u')) {
      unsigned unit = 0;
      if (!hex(unit)) {
        return fault("\\u needs four hexadecimal digits");
      }
      return surrogate(unit) || (at_ = start, fault("a lone surrogate"));
    }
    if (at_ == text_.size() || std::string_view("\"\\/bfnrt").find(peek()) == text_.npos) {
      return fault("an unknown escape");
    }
    ++at_;
    return true;
  }

  // A high surrogate must be followed by an escaped low one, a low one never stands alone.
  bool surrogate(unsigned unit) {
    if (unit < 0xD800 || unit > 0xDFFF) {
      return true;
    }
    unsigned low = 0;
    return unit <= 0xDBFF && take('\\') && take('u') && hex(low) && low >= 0xDC00 && low <= 0xDFFF;
  }

  bool hex(unsigned& unit) {
    for (int i = 0; i < 4; ++i, ++at_) {
      const std::size_t digit =
          at_ < text_.size() ? std::string_view("0123456789abcdefABCDEF").find(peek()) : text_.npos;
      if (digit == text_.npos) {
        return false;
      }
      unit = unit * 16 + static_cast<unsigned>(digit < 16 ? digit : digit - 6);
    }
    return true;
  }

  bool word(std::string_view expected) {
    if (text_.substr(at_, expected.size()) != expected) {
      return fault("an unknown word (text needs double quotes)");
    }
    at_ += expected.size();
    return true;
  }

  bool digits() {
    const std::size_t start = at_;
    while (isDigit(peek())) {
      ++at_;
    }
    return at_ > start;
  }

  bool number() {
    if (peek() != '-' && !isDigit(peek())) {
      return fault("no value starts like this (text needs double quotes)");
    }
    take('-');
    if (!take('0') && !digits()) {
      return fault("a digit is missing");
    }
    if (take('.') && !digits()) {
      return fault("a digit is missing");
    }
    if (take('e') || take('E')) {
      static_cast<void>(take('+') || take('-'));
      return digits() || fault("a digit is missing");
    }
    return true;
  }

  std::string_view text_;
  std::size_t at_ = 0;
  const char* reason_ = "";
};

}  // namespace

std::optional<JsonFault> findJsonFault(std::string_view text) {
  return Scanner(text).Run();
}

}  // namespace kova::ctl
