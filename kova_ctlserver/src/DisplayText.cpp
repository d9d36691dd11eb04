#include "DisplayText.h"

#include <algorithm>

#include "kova/utils/Utf8.h"

namespace kova::ctlserver {
namespace {

constexpr std::string_view kCut = "...";
constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD

bool isLetter(char letter) {
  return (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z');
}

bool isDigit(char digit) {
  return digit >= '0' && digit <= '9';
}

/// C0, DEL and C1 (ISO/IEC 6429).
bool isControl(char32_t code) {
  return code < 0x20 || (code >= 0x7F && code < 0xA0);
}

/// Display form of the first character of `text`, which takes `length` bytes; 0 is invalid UTF-8.
std::string_view shown(std::string_view text, std::size_t length, char32_t code) {
  if (length == 0) {
    return kReplacement;
  }
  if (code == '\n' || code == '\t') {
    return " ";
  }
  return isControl(code) ? "" : text.substr(0, length);
}

/// Index of the authority: after "SCHEME:/", "SCHEME://" and so on, or 0. Any text without "@" is
/// taken as a scheme, so that a URI whose scheme libcurl refuses shows no password either.
std::size_t authorityOf(std::string_view uri) {
  const std::size_t slash = uri.find_first_of("/?#@");
  if (slash == std::string_view::npos || slash < 2 || uri.substr(slash - 1, 2) != ":/") {
    return 0;
  }
  return std::min(uri.find_first_not_of('/', slash), uri.size());
}

bool hasImpossiblePort(std::string_view authority) {
  const std::size_t colon = authority.rfind(':');
  if (colon == std::string_view::npos || authority.find(']', colon) != std::string_view::npos) {
    return false;
  }
  return !std::ranges::all_of(authority.substr(colon + 1), isDigit);
}

/// Index of the host in `rest`, which starts with an authority: after the "@" of the user
/// information, or 0. Repeats, since what follows an "@" may contain another one.
std::size_t hostOf(std::string_view rest) {
  std::size_t host = 0;
  while (true) {
    const std::string_view left = rest.substr(host);
    const std::string_view authority = left.substr(0, left.find_first_of("/?#"));
    std::size_t at = authority.rfind('@');
    if (at == std::string_view::npos && hasImpossiblePort(authority)) {
      at = left.rfind('@');
    }
    if (at == std::string_view::npos) {
      return host;
    }
    host += at + 1;
  }
}

/// Whether `character` ends a URI embedded in text.
bool endsUri(char character) {
  return character == ' ' || character == '\'' || character == '"' || character == '<' ||
         character == '>';
}

/// Also removes occurrences that a removal creates.
void removeAll(std::string& text, const std::string& what) {
  for (std::size_t at = text.find(what); at != std::string::npos;) {
    text.erase(at, what.size());
    at = text.find(what, at - std::min(at, what.size()));
  }
}

}  // namespace

std::string displayText(std::string_view text, std::size_t most) {
  std::string result;
  std::size_t cut = 0;  // end of the last character that leaves room for kCut
  while (!text.empty()) {
    char32_t code = 0;
    const std::size_t length = utils::decodeUtf8(text, code);
    result += shown(text, length, code);
    if (result.size() > most) {
      return result.substr(0, cut).append(kCut);
    }
    if (result.size() + kCut.size() <= most) {
      cut = result.size();
    }
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return result;
}

std::string_view userInfoOf(std::string_view uri) {
  const std::string_view rest = uri.substr(authorityOf(uri));
  const std::size_t host = hostOf(rest);
  return rest.substr(0, host == 0 ? 0 : host - 1);
}

std::string withoutUserInfo(std::string_view uri) {
  const std::size_t authority = authorityOf(uri);
  const std::string_view rest = uri.substr(authority);
  return std::string(uri.substr(0, authority)).append(rest.substr(hostOf(rest)));
}

std::string withoutCredentials(std::string text, const std::string& userInfo) {
  for (std::size_t at = text.find(":/"); at != std::string::npos; at = text.find(":/", at + 1)) {
    std::size_t begin = at;
    while (begin > 0 && (isLetter(text[begin - 1]) || isDigit(text[begin - 1]))) {
      --begin;
    }
    const auto end =
        std::find_if(text.begin() + static_cast<std::ptrdiff_t>(at), text.end(), endsUri);
    const auto length = static_cast<std::size_t>(end - text.begin()) - begin;
    text.replace(begin, length, withoutUserInfo(text.substr(begin, length)));
  }
  if (!userInfo.empty()) {
    removeAll(text, userInfo + "@");
  }
  return text;
}

std::string sentence(std::string clause) {
  if (clause.empty()) {
    return clause;
  }
  if (clause[0] >= 'a' && clause[0] <= 'z') {
    clause[0] = static_cast<char>(clause[0] - 'a' + 'A');
  }
  if (clause.back() != '.') {
    clause.push_back('.');
  }
  return clause;
}

}  // namespace kova::ctlserver
